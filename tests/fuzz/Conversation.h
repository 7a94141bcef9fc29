#ifndef TESTS_FUZZ_CONVERSATION_H
#define TESTS_FUZZ_CONVERSATION_H

#include "Input.h"

namespace fuzz {

// Messages of the broker that come in without a connection, what a plug-in does with
// the requests that they make, and the answers that go out. Every request must be answered as it
// should be. The input is lines:
//   g RESPONSE CORRELATION PAYLOAD, s ..., c ...   a get, a set, a cancel
//   t TOPIC PAYLOAD, r TOPIC PAYLOAD               any topic; r: it was retained
//   v PROPERTY                                     a retained value of the property
//   a NUMBER CODE                                  the plug-in answers its request of that number
//   A NUMBER CODE                                  the same, as if it were of the other kind
// RESPONSE and CORRELATION may be "-": none.
void HoldConversation(Input& input);

}  // namespace fuzz

#endif  // TESTS_FUZZ_CONVERSATION_H
