// Times through the whole channel, one message at a time, beside those of the baseline that it
// stands on:
//
//     ./dev run -- build/release/bench/latency/channel-latency [OPTION...]
//
//   --count N      samples of each path, and as many of its baseline; 1000, or a number that stands
//                  alone on the command line
//   --pairs N      blocks that they are taken in; 10
//   --size BYTES   of a text, 16 to 65536; 16
//   --listeners N  other connections that read every event; 0
//   --json         a JSON document instead of a table
//
// The paths, and each with its baseline, the "peer":
//
//   set_to_event       from the cloud's publish of a set at QoS 1 to the signal at the application.
//                      Baseline: the same payload at the same QoS to another topic; its subscriber
//                      emits a signal, which the same connection of the application receives.
//   set_to_event_qos2  the same at QoS 2.
//   data_to_value      from the application's call of send_data to the value at the cloud.
//                      Baseline: the application sends the same text to another connection, which
//                      publishes it to another topic, at the QoS of values and retained; the same
//                      client of the cloud receives it. It is sent as a signal to that connection
//                      alone: a system bus lets nobody call what no policy names, and forwards both
//                      in the same way.
//
// A baseline is one hop over the broker and one over the bus, with the broker, the bus and the ends
// of the path, and with nothing between the hops: whatever a thread receives it passes on from
// within the callback, and no thread of ours waits for another. That is the strictest baseline; the
// hand-overs to the threads inside GDBus and libmosquitto are part of it, as both are used with
// threads in the channel, too. All ends are this process, so that one clock serves for them, and
// all times are taken where the message comes out of its library.
//
// A pair is a block of the path's samples and one of its baseline's; in every other pair the
// baseline's comes first. Each block begins with a tenth more that do not count, to warm up. The
// table has the percentiles of all blocks together, and the ratio of the medians.
//
// Late is what takes more than half a second: it is counted, and is in no percentile. A job that
// the plug-in queues in the instant between its worker's check of the queue and its wait
// starts up to a second late.
//
// The listeners read the baseline's events as well as the path's, so that what the bus does for
// them is on both sides. A sample ends at the application, whatever they still have to read.
//
// Ends with 1 when a message does not arrive, also at a listener, and with 2 for a wrong command
// line.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "Application.h"
#include "Arrival.h"
#include "Cloud.h"
#include "Environment.h"
#include "Listeners.h"
#include "Options.h"
#include "Report.h"
#include "Samples.h"
#include "SetBaseline.h"
#include "ValueBaseline.h"

namespace {

using namespace Latency;

using Send = std::function<void(const std::string& text)>;

struct Path {
  const char* name;
  const char* title;
  Send ours;
  Send peer;
};

// Sends texts one after the other, each when the one before it has arrived.
class Course {
 public:
  Course(Arrival& arrival, const Options& options) : m_arrival(arrival), m_options(options) {}

  std::vector<Report::Pair> Run(const Path& path) {
    std::vector<Report::Pair> pairs(m_options.pairs);
    for (std::size_t i = 0; i < pairs.size(); ++i) {
      const std::size_t count = endOf(i) - (i == 0 ? 0 : endOf(i - 1));
      const bool oursComesFirst = i % 2 == 0;
      if (oursComesFirst) pairs[i].ours = runBlock(count, path.ours);
      pairs[i].peer = runBlock(count, path.peer);
      if (!oursComesFirst) pairs[i].ours = runBlock(count, path.ours);
    }
    return pairs;
  }

 private:
  // How many samples there are up to the end of this block.
  std::size_t endOf(std::size_t block) const {
    return m_options.count * (block + 1) / m_options.pairs;
  }

  Samples runBlock(std::size_t count, const Send& send) {
    for (std::size_t i = 0; i < count / 10 + 1; ++i) measure(send);
    Samples samples;
    for (std::size_t i = 0; i < count; ++i) samples.Add(measure(send));
    return samples;
  }

  Samples::Microseconds measure(const Send& send) {
    const std::string text = nextText();
    m_arrival.Expect(text);
    const Arrival::Clock::time_point start = Arrival::Clock::now();
    send(text);
    return m_arrival.Wait() - start;
  }

  // A number, filled up to the size, so that each is another one.
  std::string nextText() {
    const std::string number = std::to_string(++m_number);
    return number + std::string(m_options.sizeBytes - number.size(), 'x');
  }

  Arrival& m_arrival;
  const Options& m_options;
  std::size_t m_number = 0;
};

void measure(const Options& options) {
  Listeners listeners(options.listeners);  // before there are threads
  Arrival arrival;
  const SetBaseline setBaseline;
  const ValueBaseline valueBaseline;
  Application application(arrival);
  Cloud cloud(arrival);

  const std::string valueBaselineName = valueBaseline.BusName();
  const std::vector<Path> paths = {
      {"set_to_event", "set at QoS 1 -> send_event",
       [&](const std::string& text) { cloud.Set(text, 1); },
       [&](const std::string& text) { cloud.SetOfBaseline(text, 1); }},
      {"set_to_event_qos2", "set at QoS 2 -> send_event",
       [&](const std::string& text) { cloud.Set(text, 2); },
       [&](const std::string& text) { cloud.SetOfBaseline(text, 2); }},
      {"data_to_value", "send_data -> value at the broker",
       [&](const std::string& text) { application.SendData(text); },
       [&](const std::string& text) { application.SendToBaseline(valueBaselineName, text); }}};

  Course course(arrival, options);
  Report report(options);
  for (const Path& path : paths) report.Add(path.name, path.title, course.Run(path));
  report.Finish();

  Require(listeners.Stop() == options.listeners * application.Events(),
          "the listeners have not read every event");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    measure(Options::Parse(argc, argv));
    return EXIT_SUCCESS;
  } catch (const Options::Error& error) {
    std::fprintf(stderr, "channel-latency: %s\n", error.what());
    return 2;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "channel-latency: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
