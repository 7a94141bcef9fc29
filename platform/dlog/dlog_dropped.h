/* What this log offers besides the platform's interface. Who also runs with another log makes the
   symbol weak, and finds a null function there. */
#ifndef DLOG_DROPPED_H
#define DLOG_DROPPED_H

#ifdef __cplusplus
extern "C" {
#endif

/* How many lines the process has dropped, because nobody took them, from its start on. Any
   thread. */
unsigned long dlog_dropped_lines(void);

#ifdef __cplusplus
}
#endif

#endif /* DLOG_DROPPED_H */
