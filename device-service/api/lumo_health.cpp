// What the header declares is what the library exports.
#pragma GCC visibility push(default)
#include "api/lumo_health.h"
#pragma GCC visibility pop

#include <algorithm>
#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <string>

#include "api/Library.h"
#include "values/CatchAll.h"

namespace {

using namespace Lumo;

lumo_link linkOf(const Health& health) {
  switch (health.link) {
    case Health::Link::Online:
      return LUMO_LINK_ONLINE;
    case Health::Link::Offline:
      return LUMO_LINK_OFFLINE;
    case Health::Link::None:
    default:
      return LUMO_LINK_NONE;
  }
}

std::uint32_t toCount(std::size_t number) {
  constexpr std::size_t kMost = std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(std::min(number, kMost));
}

}  // namespace

bool lumo_health_read(lumo_health* health, size_t size) {
  bool isThere = false;
  CatchAll(__func__, [&] {
    const std::shared_ptr<Service> service = Library::Get().NewestService();
    if (service == nullptr || health == nullptr) return;
    const Health found = service->ReadHealth();
    lumo_health all{};
    all.link = linkOf(found);
    all.since =
        std::chrono::duration_cast<std::chrono::seconds>(found.since.time_since_epoch()).count();
    // The rest stays 0.
    const std::string& reason = all.link == LUMO_LINK_ONLINE ? found.refusal : found.reason;
    reason.copy(all.reason, sizeof all.reason - 1);
    all.properties = toCount(found.properties);
    all.waiting_requests = toCount(found.waitingRequests);
    all.waiting_answers = toCount(found.waitingAnswers);
    std::memcpy(health, &all, std::min(size, sizeof all));
    isThere = true;
  });
  return isThere;
}

void lumo_health_listen(void (*changed)(void* user_data), void* user_data) {
  CatchAll(__func__, [&] {
    if (changed == nullptr) {
      Library::Get().ListenToHealth(nullptr);
    } else {
      Library::Get().ListenToHealth([changed, user_data] { changed(user_data); });
    }
  });
}
