/* The camera's HTTP handler library: hands a package the requests for its CGI paths. */
#ifndef TVHTTP_H
#define TVHTTP_H

#include <gio/gio.h>

G_BEGIN_DECLS

typedef struct TVHttpHandler TVHttpHandler;

/* Called on the main context that was the thread's default when the handler was made, one request
 * after the other. `path` is the package's path ("/local/NAME/FILE.cgi"), `method` the HTTP method,
 * `query` the raw query string ("" without one). `arguments` maps argument names to values, both
 * percent-decoded ('+' stays '+'); of a repeated name the last one counts. The three texts and the
 * table belong to the library and live until the callback returns.
 * `output` is owned by the callback, which releases it; the reply is what was written to it until
 * then, CGI header block first. A client that stops reading makes writes fail after a while. */
typedef void (*TVHttpRequestCallback)(const gchar *path, const gchar *method, const gchar *query,
                                      GHashTable *arguments, GOutputStream *output,
                                      gpointer user_data);

/* Starts to take requests for the calling program's package (the program's file name). Returns
 * NULL when the web server can't be reached. */
TVHttpHandler *tv_http_handler_new(TVHttpRequestCallback callback, gpointer user_data);

/* Stops taking requests; not to be called from the callback. NULL is allowed. */
void tv_http_handler_free(TVHttpHandler *handler);

G_END_DECLS

#endif
