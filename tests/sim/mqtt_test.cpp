// The simulated client library answers like the real one where the daemon depends on the answer.
#include "platform.h"

#include <dlfcn.h>
#include <mosquitto.h>

namespace
{

template <typename Function>
Function *real_function(const char *name)
{
    static void *const library = dlopen("libmosquitto.so.1", RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(library, nullptr) << dlerror();
    return reinterpret_cast<Function *>(dlsym(library, name));
}

// Every text of up to four of these characters.
std::vector<std::string> short_texts()
{
    std::vector<std::string> texts = {""};
    for (size_t i = 0; i < texts.size() && texts[i].size() < 4; i++) {
        for (const char *next : {"a", "b", "/", "+", "#", "$"}) {
            texts.push_back(texts[i] + next);
        }
    }
    return texts;
}

TEST(mqtt_library, accepts_filters_like_the_real_one)
{
    const auto real_check = real_function<decltype(mosquitto_sub_topic_check)>("mosquitto_sub_topic_check");
    ASSERT_NE(real_check, nullptr);
    std::vector<std::string> filters = short_texts();
    for (const size_t length : {201U, 65535U, 65536U}) {
        filters.push_back(std::string(length, '/'));
    }
    size_t refused = 0;
    for (const std::string &filter : filters) {
        const int result = mosquitto_sub_topic_check(filter.c_str());
        ASSERT_EQ(result, real_check(filter.c_str())) << filter.substr(0, 10) << ' ' << filter.size();
        refused += result == MOSQ_ERR_SUCCESS ? 0 : 1;
    }
    EXPECT_GT(refused, 100U);
    EXPECT_LT(refused, filters.size() - 100);
}

TEST(mqtt_library, matches_topics_like_the_real_one)
{
    const auto real_match =
        real_function<decltype(mosquitto_topic_matches_sub)>("mosquitto_topic_matches_sub");
    ASSERT_NE(real_match, nullptr);
    const std::vector<std::string> texts = short_texts();
    size_t matches = 0;
    for (const std::string &filter : texts) {
        for (const std::string &topic : texts) {
            bool is_match = false;
            bool is_real_match = false;
            const int result = mosquitto_topic_matches_sub(filter.c_str(), topic.c_str(), &is_match);
            const int real_result = real_match(filter.c_str(), topic.c_str(), &is_real_match);
            if (result == MOSQ_ERR_SUCCESS) {
                ASSERT_EQ(real_result, MOSQ_ERR_SUCCESS) << filter << ' ' << topic;
                ASSERT_EQ(is_match, is_real_match) << filter << ' ' << topic;
            }
            matches += is_match ? 1 : 0;
        }
    }
    EXPECT_GT(matches, texts.size());
    for (const char *invalid : {"", "a#", "a+", "+a", "a/#/b"}) {
        bool is_match = false;
        EXPECT_EQ(mosquitto_topic_matches_sub(invalid, "a", &is_match), MOSQ_ERR_INVAL) << invalid;
        EXPECT_EQ(real_match(invalid, "a", &is_match), MOSQ_ERR_INVAL) << invalid;
    }
}

TEST(mqtt_library, names_errors_like_the_real_one)
{
    const auto real_strerror = real_function<decltype(mosquitto_strerror)>("mosquitto_strerror");
    ASSERT_NE(real_strerror, nullptr);
    for (int error = MOSQ_ERR_SUCCESS; error <= MOSQ_ERR_EAI; error++) {
        errno = EPIPE;
        EXPECT_STREQ(mosquitto_strerror(error), real_strerror(error)) << error;
    }
}

} // namespace
