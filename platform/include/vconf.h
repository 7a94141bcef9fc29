/* The platform's settings store. */
#ifndef VCONF_H
#define VCONF_H

#ifdef __cplusplus
extern "C" {
#endif

int vconf_set_int(const char *key, int value);   /* 0 on success, non-zero on failure */

#ifdef __cplusplus
}
#endif

#endif /* VCONF_H */
