#include "action_reply.h"

#include "glib_ptr.h"

#include <algorithm>

std::map<std::string, std::string> query(std::string_view text) {
    std::map<std::string, std::string> arguments;
    while (!text.empty()) {
        const std::string_view one = text.substr(0, text.find('&'));
        const auto equals = one.find('=');
        arguments.emplace(one.substr(0, equals), one.substr(equals + 1));
        text.remove_prefix(std::min(text.size(), one.size() + 1));
    }
    return arguments;
}

std::string reply_of(http_callback handler, const std::map<std::string, std::string> &arguments) {
    const ghashtable_ptr table(g_hash_table_new_full(g_str_hash, g_str_equal, g_free, g_free));
    for (const auto &[name, value] : arguments) {
        g_hash_table_insert(table.get(), g_strdup(name.c_str()), g_strdup(value.c_str()));
    }
    const gobject_ptr<GOutputStream> memory(g_memory_output_stream_new_resizable());
    const gobject_ptr<GDataOutputStream> stream(g_data_output_stream_new(memory.get()));
    handler(stream.get(), table.get());
    auto *bytes = G_MEMORY_OUTPUT_STREAM(memory.get());
    return {static_cast<const char *>(g_memory_output_stream_get_data(bytes)),
            g_memory_output_stream_get_data_size(bytes)};
}

std::string body_of(http_callback handler, const std::map<std::string, std::string> &arguments) {
    const std::string reply = reply_of(handler, arguments);
    const auto end = reply.find("\r\n\r\n");
    return end == std::string::npos ? reply : reply.substr(end + 4);
}
