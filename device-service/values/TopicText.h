#ifndef DEVICE_SERVICE_VALUES_TOPICTEXT_H
#define DEVICE_SERVICE_VALUES_TOPICTEXT_H

#include <string_view>

namespace Lumo {

// Whether brokers take it in a topic: valid UTF-8 without control characters and noncharacters.
bool IsTopicText(std::string_view text);

// Whether it can be one level of a topic, as the name of a thing, a service or a property is: topic
// text of 1 to 256 bytes without '/', '+' and '#'.
bool IsTopicLevel(std::string_view text);

}  // namespace Lumo

#endif  // DEVICE_SERVICE_VALUES_TOPICTEXT_H
