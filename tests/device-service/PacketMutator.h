#ifndef TESTS_PLATFORM_LUMO_PACKETMUTATOR_H
#define TESTS_PLATFORM_LUMO_PACKETMUTATOR_H

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

// What a broker could send if it were broken, or an enemy: valid packets with something wrong about
// them. The same seed gives the same bytes.
class PacketMutator {
 public:
  explicit PacketMutator(std::uint32_t seed);

  // Some packets in a row, at least one of which is mutated. `isGreeting`: the first one is a
  // CONNACK.
  std::string Packets(bool isGreeting);
  // True as often as one in `count`.
  bool OneIn(unsigned count) { return below(count) == 0; }

 private:
  std::size_t below(std::size_t end);
  std::string mutate(std::string packet);
  void mutateOnce(std::string& packet);
  const std::string& pick(const std::vector<std::string>& packets);

  std::mt19937 m_random;
  const std::vector<std::string> m_greetings;
  const std::vector<std::string> m_packets;
};

#endif  // TESTS_PLATFORM_LUMO_PACKETMUTATOR_H
