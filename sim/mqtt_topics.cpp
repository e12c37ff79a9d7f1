// The client library's functions that only look at topics, for builds without that library: those for other processors.
#include <mosquitto.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace
{

bool has_wildcard(std::string_view text)
{
    return text.find_first_of("+#") != std::string_view::npos;
}

// The first level, which is cut off; the text has no data after the last one.
std::string_view cut_level(std::string_view &text)
{
    const size_t slash = text.find('/');
    const std::string_view level = text.substr(0, slash);
    text = slash == std::string_view::npos ? std::string_view() : text.substr(slash + 1);
    return level;
}

bool is_filter(std::string_view filter)
{
    while (filter.data() != nullptr) {
        const std::string_view level = cut_level(filter);
        if (level != "+" && level != "#" && has_wildcard(level)) {
            return false;
        }
        if (level == "#" && filter.data() != nullptr) {
            return false;
        }
    }
    return true;
}

bool matches(std::string_view filter, std::string_view topic)
{
    if (filter.starts_with('$') != topic.starts_with('$')) {
        return false;
    }
    while (filter.data() != nullptr && topic.data() != nullptr) {
        const std::string_view level = cut_level(filter);
        if (level == "#") {
            return true;
        }
        const std::string_view topic_level = cut_level(topic);
        if (level != "+" && level != topic_level) {
            return false;
        }
    }
    return topic.data() == nullptr && (filter.data() == nullptr || filter == "#");
}

} // namespace

extern "C" {

int mosquitto_topic_matches_sub(const char *filter, const char *topic, bool *result)
{
    if (*filter == '\0' || *topic == '\0' || !is_filter(filter) || has_wildcard(topic)) {
        return MOSQ_ERR_INVAL;
    }
    *result = matches(filter, topic);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_sub_topic_check(const char *filter)
{
    return is_filter(filter) ? MOSQ_ERR_SUCCESS : MOSQ_ERR_INVAL;
}

int mosquitto_pub_topic_check(const char *topic)
{
    return has_wildcard(topic) ? MOSQ_ERR_INVAL : MOSQ_ERR_SUCCESS;
}

int mosquitto_validate_utf8(const char *, int)
{
    return MOSQ_ERR_SUCCESS;
}

const char *mosquitto_strerror(int error)
{
    switch (error) {
    case MOSQ_ERR_ERRNO:
        return strerror(errno);
    case MOSQ_ERR_NOMEM:
        return "Out of memory.";
    case MOSQ_ERR_INVAL:
        return "Invalid function arguments provided.";
    case MOSQ_ERR_NO_CONN:
        return "The client is not currently connected.";
    case MOSQ_ERR_CONN_REFUSED:
        return "The connection was refused.";
    case MOSQ_ERR_CONN_LOST:
        return "The connection was lost.";
    default:
        return "Unknown error.";
    }
}

} // extern "C"
