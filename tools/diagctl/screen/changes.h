// Changes as the commands that follow the network print them.
#pragma once

#include "screen/reports.h"

// One line: the time with the text, or a JSON object of one line.
void print_change(const network &net, const std::string &topic, const std::string &text, const moment &now,
                  bool is_json);
