// Texts from applications travel as D-Bus strings, which GLib takes only as
// valid UTF-8: anything else makes g_variant_new raise a critical and put
// "[Invalid UTF-8]" on the bus in the text's place, while the call reports
// success. The operations that take text ask here first and refuse such a
// call as one with a bad argument. The line saying so is the caller's, so
// that it names the operation and its source unit.
#ifndef LUMORA_INTERNAL_TEXT_H
#define LUMORA_INTERNAL_TEXT_H

#include <glib.h>

#include <initializer_list>

namespace lumora::internal {

// One argument of an operation: its name as the log names it, and its text.
struct NamedText {
    const char* name;
    const char* text;
};

// The name of the first text that is not valid UTF-8, or null when all are.
// A null text passes: a missing argument is the operation's own check.
inline const char* FirstInvalidText(std::initializer_list<NamedText> texts) {
    for (const NamedText& argument : texts) {
        if (argument.text != nullptr && !g_utf8_validate(argument.text, -1, nullptr)) return argument.name;
    }
    return nullptr;
}

}  // namespace lumora::internal

#endif  // LUMORA_INTERNAL_TEXT_H
