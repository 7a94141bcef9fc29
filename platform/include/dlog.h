/* The platform log. Priorities in use: 3 debug, 4 info, 6 error. */
#ifndef DLOG_H
#define DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

int dlog_print(int priority, const char *tag, const char *format, ...);   /* printf format */

#ifdef __cplusplus
}
#endif

#endif /* DLOG_H */
