#pragma once

#include "network/model.h"

inline moment current_moment()
{
    return {std::chrono::steady_clock::now(), std::chrono::system_clock::now()};
}
