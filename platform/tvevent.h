/* The camera's event service: programs declare events under a topic, send them and subscribe to
 * them; the device's rules engine reacts to them. All calls are made on the main loop. */
#ifndef TVEVENT_H
#define TVEVENT_H

#include <glib.h>

G_BEGIN_DECLS

typedef struct TVEventHandler TVEventHandler;
typedef struct TVEventKeyValueSet TVEventKeyValueSet;
typedef struct TVEvent TVEvent;

typedef enum { TV_EVENT_VALUE_TYPE_STRING = 0 } TVEventValueType;

/* Ends a list of keys. */
#define TV_EVENT_KEYS_END ((const gchar *)NULL)

/* Called for each event whose keys include all those subscribed to, on the main context that was
 * the default when the handler was made. `event` is the callback's to free. The callback may call the
 * library, `tv_event_handler_unsubscribe` of its own subscription included. */
typedef void (*TVSubscriptionCallback)(guint subscription, TVEvent *event, gpointer user_data);

/* Called when a declaration is complete. */
typedef void (*TVDeclarationCompleteCallback)(guint declaration, gpointer user_data);

/* A handler, or NULL when the event service can't be reached. It is never freed. */
TVEventHandler *tv_event_handler_new(void);

/* Declares an event under the keys of the set. TRUE with *declaration above 0, or FALSE with
 * *declaration 0 and `error` set: the topic is declared already, or the service is away. */
gboolean tv_event_handler_declare(TVEventHandler *handler, TVEventKeyValueSet *keys,
                                  gboolean stateless, guint *declaration,
                                  TVDeclarationCompleteCallback callback, gpointer user_data,
                                  GError **error);
gboolean tv_event_handler_undeclare(TVEventHandler *handler, guint declaration, GError **error);

/* Sends an event under a declaration. FALSE with `error` set for an unknown declaration or when the
 * service is away. */
gboolean tv_event_handler_send_event(TVEventHandler *handler, guint declaration, TVEvent *event,
                                     GError **error);

gboolean tv_event_handler_subscribe(TVEventHandler *handler, TVEventKeyValueSet *keys,
                                    guint *subscription, TVSubscriptionCallback callback,
                                    gpointer user_data, GError **error);
/* After it returns no callback of the subscription comes. */
gboolean tv_event_handler_unsubscribe(TVEventHandler *handler, guint subscription, GError **error);

TVEventKeyValueSet *tv_event_key_value_set_new(void);

/* Adds keys: after `error` quadruples of key (const gchar *), name space (const gchar * or NULL),
 * value (const void *; a string for the string type) and TVEventValueType, ended by
 * TV_EVENT_KEYS_END. A key that is there already gets the new value. */
gboolean tv_event_key_value_set_add_key_values(TVEventKeyValueSet *set, GError **error, ...);

/* Adds nice names to keys of the set: after `error` quadruples of key, name space or NULL, the key's
 * nice name or NULL and the value's nice name or NULL, ended by TV_EVENT_KEYS_END. FALSE with
 * `error` set when a key is not in the set. */
gboolean tv_event_key_value_set_add_nice_names(TVEventKeyValueSet *set, GError **error, ...);

/* NULL is allowed. */
void tv_event_key_value_set_free(TVEventKeyValueSet *set);

/* An event with the data items of `set` (which stays the caller's) and a time stamp; NULL stands
 * for the current time. */
TVEvent *tv_event_new(TVEventKeyValueSet *set, GDateTime *time_stamp);

/* NULL is allowed. */
void tv_event_free(TVEvent *event);

G_END_DECLS

#endif
