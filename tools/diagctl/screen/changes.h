// Changes as people read them.
#pragma once

#include "network/model.h"

// "node 02-00-00-00-00-03 (7) port B red (was green)".
std::string change_text(const network &net, const change &item);

// Prints one line: the time with the text, or a JSON object.
void print_change(const network &net, const change &item, std::string_view topic, const moment &now,
                  bool is_json);

// The same for a message that has changed nothing that is known; text is its payload as it can be shown.
void print_message(const network &net, std::string_view topic, const std::string &text, const moment &now,
                   bool is_json);
