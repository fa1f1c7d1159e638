/* The camera's parameter store: named texts such as "root.Brand.ProdShortName". */
#ifndef TVPARAMETER_H
#define TVPARAMETER_H

#include <glib.h>

G_BEGIN_DECLS

typedef struct TVParameter TVParameter;

/* A handle for the named application, or NULL with `error` set when the store can't be reached. */
TVParameter *tv_parameter_new(const gchar *application, GError **error);

/* Reads a parameter into a new string that the caller frees with g_free. FALSE with `error` set,
 * and *value NULL, when there is no such parameter or the handle is NULL. Any thread may call. */
gboolean tv_parameter_get(TVParameter *handle, const gchar *name, gchar **value, GError **error);

/* Sets an existing parameter or makes a new one; on storage when it returns if `save_now`, else a
 * while later. FALSE with `error` set when the name or the value (no line ends) can't be stored. Any
 * thread may call. */
gboolean tv_parameter_set(TVParameter *handle, const gchar *name, const gchar *value,
                          gboolean save_now, GError **error);

/* NULL is allowed. */
void tv_parameter_free(TVParameter *handle);

G_END_DECLS

#endif
