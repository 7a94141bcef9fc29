/* What this device service offers to a host besides the platform's interface. A host that also runs
   with another device service finds it with dlsym. */
#ifndef LUMO_CHECK_H
#define LUMO_CHECK_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
  LUMO_SETTINGS_WRONG = -1,  /* a service would not be created */
  LUMO_SETTINGS_OFFLINE = 0, /* no broker is set: nothing goes out */
  LUMO_SETTINGS_ONLINE = 1
} lumo_settings;

/* Judges the environment as the creation of a service does now, and connects to nothing. `text`
   gets one line without a secret and without a line feed: the fault, or what the settings mean. It
   has `size` bytes and is cut to that, with a NUL at the end. Any thread. */
lumo_settings lumo_check_settings(char* text, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* LUMO_CHECK_H */
