#ifndef TESTS_CAMPAIGN_MOSQUITTOBROKER_H
#define TESTS_CAMPAIGN_MOSQUITTOBROKER_H

#include "Broker.h"
#include "CampaignBroker.h"

// The broker of the other tests.
class MosquittoBroker final : public CampaignBroker {
 public:
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
