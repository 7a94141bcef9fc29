#ifndef TESTS_CAMPAIGN_EJABBERDBROKER_H
#define TESTS_CAMPAIGN_EJABBERDBROKER_H

#include <filesystem>
#include <memory>
#include <string>

#include "CampaignBroker.h"
#include "HostProcess.h"

// A broker of another make: Debian's package ejabberd, with everything that it writes in a folder.
// It keeps sessions in memory, so that it never remembers one when it is started again.
class EjabberdBroker final : public CampaignBroker {
 public:
  // The folder must live longer.
  explicit EjabberdBroker(std::filesystem::path folder);

  int Port() const override { return m_port; }
  std::string User() const override { return "somebody@localhost"; }
  std::string Password() const override { return "whatever"; }
  // Throws std::logic_error: it cannot be ended so that it remembers.
  void Stop() override;
  void KillAndForget() override;
  void Start() override;

 private:
  void configure() const;
  bool tryToStart();

  const std::filesystem::path m_folder;
  int m_port = 0;
  std::unique_ptr<HostProcess> m_program;  // null while it is not running
};

#endif  // TESTS_CAMPAIGN_EJABBERDBROKER_H
