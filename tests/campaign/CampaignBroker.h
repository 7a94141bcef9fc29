#ifndef TESTS_CAMPAIGN_CAMPAIGNBROKER_H
#define TESTS_CAMPAIGN_CAMPAIGNBROKER_H

#include <string>

// A broker at a port of the loopback interface that stays the same. It runs from its construction
// on. Failures are thrown as std::runtime_error.
class CampaignBroker {
 public:
  CampaignBroker() = default;
  virtual ~CampaignBroker() = default;
  CampaignBroker(const CampaignBroker&) = delete;
  CampaignBroker& operator=(const CampaignBroker&) = delete;

  virtual int Port() const = 0;
  // What its clients have to say; they say nothing when the user is empty.
  virtual std::string User() const { return {}; }
  virtual std::string Password() const { return {}; }
  // Ends it in order, so that it remembers its sessions and retained messages when it is started
  // again.
  virtual void Stop() = 0;
  // Ends it as a crash would, and what it remembers is gone.
  virtual void KillAndForget() = 0;
  virtual void Start() = 0;
};

#endif  // TESTS_CAMPAIGN_CAMPAIGNBROKER_H
