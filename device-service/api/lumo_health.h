/* What this device service tells a host of its health, besides the platform's interface. A host
   that also runs with another device service finds it with dlsym. */
#ifndef LUMO_HEALTH_H
#define LUMO_HEALTH_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  LUMO_LINK_NONE = 0, /* no broker is set */
  LUMO_LINK_OFFLINE = 1,
  LUMO_LINK_ONLINE = 2 /* requests come */
} lumo_link;

/* New members come at the end. */
typedef struct {
  lumo_link link;
  int64_t since;       /* when it became this, in seconds since 1970 */
  char reason[256];    /* in one line: why it is offline, or what the broker refuses although it is
                          online; empty when nothing has failed yet */
  uint32_t properties; /* that are registered */
  uint32_t waiting_requests;
  uint32_t waiting_answers; /* for the broker */
} lumo_health;

/* Of the service that was created last; false when there is none. Fills in the first `size` bytes,
   which are those that the caller knows. Any thread. */
bool lumo_health_read(lumo_health* health, size_t size);

/* `changed` is called when something that lumo_health_read shows may have changed: a second after
   it, and once a second at most. It runs on a thread of the library, and may call nothing of it.
   Null: nobody is called any more, from the return on. Services that are created later tell, too.
 */
void lumo_health_listen(void (*changed)(void* user_data), void* user_data);

#ifdef __cplusplus
}
#endif

#endif /* LUMO_HEALTH_H */
