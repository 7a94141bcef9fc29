#ifndef TESTS_CAMPAIGN_MOSQUITTOBROKER_H
#define TESTS_CAMPAIGN_MOSQUITTOBROKER_H

#include <filesystem>

#include "Broker.h"
#include "CampaignBroker.h"

// The broker of the system tests.
class MosquittoBroker final : public CampaignBroker {
 public:
  // The folder must live longer.
  explicit MosquittoBroker(const std::filesystem::path& folder) : m_broker(folder) {}

  int Port() const override { return m_broker.Port(); }
  void Stop() override { m_broker.Stop(); }
  void KillAndForget() override {
    m_broker.Kill();
    m_broker.Forget();
  }
  void Start() override { m_broker.Start(); }

 private:
  Broker m_broker;
};

#endif  // TESTS_CAMPAIGN_MOSQUITTOBROKER_H
