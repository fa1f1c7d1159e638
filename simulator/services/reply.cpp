#include "service.h"

#include "glib_ptr.h"

namespace {

constexpr int enormous_count = 20'000;
constexpr std::size_t enormous_text = 100'000;

struct late_answer {
    GDBusMethodInvocation *invocation;
    GVariant *body;
};

gboolean answer_late(gpointer data) noexcept {
    const std::unique_ptr<late_answer> late(static_cast<late_answer *>(data));
    answer(late->invocation, late->body);
    g_variant_unref(late->body);
    return G_SOURCE_REMOVE;
}

GVariant *enormous(GVariant *body) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE("a(is)"));
    g_variant_builder_add(&builder, "(is)", 0, std::string(enormous_text, 'x').c_str());
    for (int i = 0; i < enormous_count; ++i) {
        g_variant_builder_add(&builder, "(is)", -i, "off");
    }
    return g_variant_new("(a(is)v)", &builder, body);
}

} // namespace

void answer(GDBusMethodInvocation *invocation, GVariant *body) {
    const gobject_ptr<GDBusMessage> reply(
        g_dbus_message_new_method_reply(g_dbus_method_invocation_get_message(invocation)));
    g_dbus_message_set_body(reply.get(), body);
    g_dbus_connection_send_message(g_dbus_method_invocation_get_connection(invocation), reply.get(),
                                   G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr, nullptr);
    g_object_unref(invocation); // whoever answers owns it
}

void answer_as(const std::string &kind, GDBusMethodInvocation *invocation, GVariant *body) {
    if (kind == "slow") {
        g_timeout_add_seconds(slow_s, answer_late,
                              new late_answer{invocation, g_variant_ref_sink(body)});
        return;
    }
    if (kind == "enormous") {
        answer(invocation, enormous(body));
        return;
    }
    if (kind == "real") {
        answer(invocation, body);
        return;
    }
    if (body != nullptr) {
        g_variant_unref(g_variant_ref_sink(body));
    }
    if (kind == "cut") {
        answer(invocation, g_variant_new("(i)", 0));
    } else if (kind == "nonsense") {
        answer(invocation,
               g_variant_new("(sisdb)", "int 0\ndouble\nstring \"", 0, "\" , +", 0.0, TRUE));
    } else if (kind == "error") {
        g_dbus_method_invocation_return_error_literal(invocation, G_IO_ERROR, G_IO_ERROR_FAILED,
                                                      "The device does not know.");
    } else {
        answer(invocation, g_variant_new("()"));
    }
}
