/* The device-service library: one service of a thing, its properties and the cloud's requests. */
#ifndef LUMO_H
#define LUMO_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/*
 * Ownership and threads:
 * - A property list handed to lumo_service_notify or to a send_*_result passes to the library.
 * - A list handed to a callback belongs to the library and lives only as long as the callback runs.
 * - A request handle stays good until it is answered, cancelled or timed out. After that, and with
 *   a null service, the library ignores an answer and still frees its list.
 * - Callbacks run on threads of the library, possibly several at a time, with no library lock held.
 * - lumo_service_destroy lets no further callback start and does not wait for one that is running:
 *   its caller may hold a lock that the callback wants. Such a callback's thread is joined by a
 *   later call of the library or when the library is unloaded.
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef int lumo_error;            /* 0: success */
typedef int lumo_property_type;    /* LUMO_PROPERTY_TYPE_*; other values travel unchanged */
typedef int lumo_protocol_status;

enum {
  LUMO_PROPERTY_TYPE_BOOL = 0,
  LUMO_PROPERTY_TYPE_INT = 1,
  LUMO_PROPERTY_TYPE_DOUBLE = 2,
  LUMO_PROPERTY_TYPE_STRING = 3,
  LUMO_PROPERTY_TYPE_JSON_STRING = 4,
  LUMO_PROPERTY_TYPE_BYTES = 5
};

typedef struct lumo_string { const char *data; size_t length; } lumo_string;          /* NUL-terminated */
typedef struct lumo_bytes  { const unsigned char *data; size_t length; } lumo_bytes;

typedef void (*lumo_protocol_status_cb)(void *service, lumo_string protocol,
                                        lumo_protocol_status status, void *user_data);
typedef void (*lumo_get_property_cb)(void *service, void *request, void *list, void *user_data);
typedef void (*lumo_set_property_cb)(void *service, void *request, void *list, void *user_data);
typedef void (*lumo_cancel_cb)(void *service, void *request, void *user_data);

lumo_string lumo_string_new(const char *data, size_t length);   /* a view: nothing is copied */

void *lumo_service_create(lumo_string name, lumo_string description,
                          lumo_protocol_status_cb protocol_status, lumo_get_property_cb get,
                          lumo_set_property_cb set, lumo_cancel_cb cancel, void *user_data);
lumo_error lumo_service_destroy(void *service);
lumo_error lumo_service_register_property(void *service, lumo_string name, lumo_property_type type,
                                          int64_t attribute1, int64_t attribute2, lumo_string text);
lumo_error lumo_service_unregister_property(void *service, lumo_string name);
lumo_error lumo_service_notify(void *service, void *list);
lumo_error lumo_service_send_get_property_result(void *service, void *request, void *list, lumo_error code);
lumo_error lumo_service_send_set_property_result(void *service, void *request, void *list, lumo_error code);

void *lumo_property_list_create(void);
lumo_error lumo_property_list_push_property(void *list, void *property, int position);
void *lumo_property_list_get_first(void *list);
void *lumo_property_list_get_next(void *list, void *property);

void *lumo_property_create_bool(lumo_string name, bool value);
void *lumo_property_create_int(lumo_string name, int value);
void *lumo_property_create_double(lumo_string name, double value);
void *lumo_property_create_string(lumo_string name, lumo_string value);
void *lumo_property_create_json_string(lumo_string name, lumo_string json);

lumo_string lumo_property_get_name(void *property);
lumo_property_type lumo_property_get_type(void *property);
lumo_error lumo_property_get_bool(void *property, bool *value);
lumo_error lumo_property_get_int(void *property, int *value);
lumo_string lumo_property_get_string(void *property);
lumo_string lumo_property_get_json_string(void *property);
lumo_bytes lumo_property_get_bytes(void *property);

#ifdef __cplusplus
}
#endif

#endif /* LUMO_H */
