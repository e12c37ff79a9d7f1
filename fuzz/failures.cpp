// Plays the corpus' inputs that have a name, and a start without any, again and again, each time with another call
// failing: every system call, library call and allocation of each. Prints a line a run for failures.py, tabs between:
//
//     input  number of the call  its kind  errno  what the daemon does next  what is wrong, if anything  what it logs ...
//
// What it does next are two things where the second may come from the input: a refusal later, or an end at the same time.
// What it logs is what it does not without the failure, and at the moment of the failure unless that ends it.
#include "steps.h"
#include "topics.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace fuzz
{

namespace
{

// What uthash ends a process with, without a word, whose table can't grow: that of the clients, of the fire addresses and
// of the own topics.
constexpr int NO_MEMORY_FOR_TABLE = -1;

struct call_errors {
    const char *name;
    std::vector<int> errors;
};

// In the order of sim::system_call.
const call_errors CALLS[] = {
    {"read", {EIO}},
    {"clock_gettime", {EINVAL}},
    {"timerfd_create", {EMFILE}},
    {"timerfd_settime", {EINVAL}},
    {"epoll_ctl", {ENOSPC}},
    {"epoll_wait", {EINTR, EBADF}},
    {"recvfrom", {EINTR, ENETDOWN}},
    {"sendto", {EINTR, ENETUNREACH}},
    {"allocation", {ENOMEM}},
    {"hang-up", {EIO}},
    {"epoll_create1", {EMFILE}},
    {"sigaction", {EINVAL}},
    {"open", {EACCES}},
    {"close", {EIO}},
    {"nanosleep", {EINTR}},
    {"socket", {EMFILE}},
    {"ioctl", {ENODEV}},
    {"setsockopt", {ENODEV}},
    {"if_nametoindex", {ENODEV}},
    {"bind", {EADDRINUSE}},
    {"mosquitto_new", {ENOMEM}},
    {"mosquitto_connect", {ECONNREFUSED, ENETUNREACH}},
    {"mosquitto_disconnect", {ENOTCONN}},
    {"mosquitto_socket", {EBADF}},
    {"mosquitto_loop", {EINTR, ECONNRESET}},
    {"mosquitto_loop_read", {EINTR, ECONNRESET}},
    {"mosquitto_loop_write", {EPIPE}},
    {"mosquitto_loop_misc", {ECONNRESET}},
    {"mosquitto_publish", {ENOMEM}},
    {"mosquitto_subscribe", {ENOMEM}},
    {"mosquitto_unsubscribe", {ENOMEM}},
};
static_assert(std::size(CALLS) == static_cast<size_t>(sim::system_call::COUNT));

struct input {
    std::string name;
    std::vector<uint8_t> content;
    const step_table *kinds;
};

// A run in which the call of this number fails, 0 for none, with the variant-th of its errors.
class failing final : public subject
{
public:
    failing(size_t number, size_t variant) : number_(number), variant_(variant) {}

    void play_all(const input &played)
    {
        start();
        first_ = calls_ + 1;
        play(*this, played.content, *played.kinds);
        run_for(sim::seconds(2));
        if (status_) {
            return;
        }
        litter_ = find_litter();
        answers_ = 0;
        constexpr std::string_view NOOP = "99;99;noop";
        publish(REQUEST_TOPIC, {reinterpret_cast<const uint8_t *>(NOOP.data()), NOOP.size()}, false);
        is_stopping_ = !status_;
        daemon().send_sigterm();
        run_for(sim::seconds(5));
    }

    // Compares with the run without a failure and prints.
    void report(const input &played, const failing &sound) const
    {
        std::vector<line> logged = logged_;
        for (const line &each : sound.logged_) {
            const auto same = std::ranges::find(logged, each.text, &line::text);
            if (same != logged.end()) {
                logged.erase(same);
            }
        }
        const char *const wrong = find_fault(sound, logged.empty());
        if (!has_ended_itself()) {
            std::erase_if(logged, [this](const line &each) { return each.when != failed_at_; });
        }
        printf("%s\t%zu\t%s\t%d\t%s\t%s", played.name.c_str(), number_, failed_->name,
               failed_->errors[variant_], effect(sound), wrong == nullptr ? "" : wrong);
        for (const line &each : logged) {
            printf("\t%s", each.text.c_str());
        }
        putchar('\n');
        fflush(stdout); // the next run may crash
    }

    size_t first_call() const { return first_; } // behind the start
    size_t count_calls() const { return calls_; }
    bool has_more_errors() const { return failed_ != nullptr && variant_ + 1 < failed_->errors.size(); }

    int failure_of(sim::system_call call) override
    {
        if (++calls_ != number_) {
            return 0;
        }
        failed_ = &CALLS[static_cast<size_t>(call)];
        failed_at_ = clock().now();
        is_failed_stopping_ = is_stopping_;
        return failed_->errors[variant_];
    }
    void log(const char *text) override
    {
        subject::log(text);
        std::string printable = text;
        std::ranges::replace_if(
            printable, [](unsigned char each) { return std::isprint(each) == 0; }, '.');
        logged_.push_back({printable, clock().now()});
    }
    void send(uint32_t address, uint16_t port, const sim::shared_bytes &datagram) override
    {
        subject::send(address, port, datagram);
        note(datagram.text());
    }
    void ended(int status) override
    {
        subject::ended(status);
        ended_at_ = clock().now();
        // The end frees all memory, also what a failing step has left.
        if (litter_ == nullptr && daemon().find_unwatched() != -1) {
            litter_ = "a descriptor is open that nothing watches";
        }
    }

private:
    struct line {
        std::string text;
        sim::nanoseconds when;
    };

    void published(const sim::mqtt_message &message) override
    {
        subject::published(message);
        const std::string &topic = topics().name(message.topic);
        if (!message.is_from_daemon) {
            return;
        }
        note(topic, message.payload.text());
        if (topic == RESPONSE_TOPIC) {
            answers_++;
            if (message.payload.text().find("NACK") != std::string_view::npos) {
                refusals_++;
                has_refused_since_ = failed_ != nullptr;
            }
        }
    }
    // A sum, as a pause may put the daemon's output into another order.
    void note(std::string_view output, std::string_view more = {})
    {
        output_ += std::hash<std::string_view>()(output) * 3 + std::hash<std::string_view>()(more);
    }
    bool has_ended_itself() const { return status_ && !is_stopping_; }

    const char *effect(const failing &sound) const
    {
        if (has_ended_itself()) {
            // The input may be meant to end it.
            const bool is_meant = sound.has_ended_itself() && ended_at_ == sound.ended_at_;
            return !daemon().is_serving() ? "doesn't start" : is_meant ? "goes on, ends" : "ends";
        }
        if (is_failed_stopping_) {
            return "goes on ending";
        }
        return refusals_ > sound.refusals_ ? "refuses" : has_refused_since_ ? "goes on, refuses" : "goes on";
    }
    const char *find_fault(const failing &sound, bool is_silent) const
    {
        if (litter_ != nullptr) {
            return litter_;
        }
        if (status_ == NO_MEMORY_FOR_TABLE) {
            return nullptr;
        }
        if (status_ != (is_stopping_ ? EXIT_SUCCESS : EXIT_FAILURE)) {
            return status_ ? "the exit status is wrong" : "it does not end";
        }
        if (is_stopping_ && answers_ == 0) {
            return "it does not answer any more";
        }
        const bool changes = output_ != sound.output_ || has_ended_itself() != sound.has_ended_itself();
        return is_silent && changes ? "it changes what the daemon does without a word" : nullptr;
    }

    size_t number_;
    size_t variant_;
    size_t calls_ = 0;
    size_t first_ = 0;
    const call_errors *failed_ = nullptr;
    sim::nanoseconds failed_at_{};
    std::vector<line> logged_;
    const char *litter_ = nullptr;
    bool is_stopping_ = false; // by SIGTERM
    bool is_failed_stopping_ = false;
    sim::nanoseconds ended_at_{};
    unsigned answers_ = 0; // since the end of the input
    unsigned refusals_ = 0;
    bool has_refused_since_ = false; // the failure
    size_t output_ = 0;              // of all that it has sent and published
};

std::vector<input> read_inputs(const std::filesystem::path &corpus)
{
    std::vector<input> inputs = {{"start", {}, &steps_of("receive")}};
    for (const auto &entry : std::filesystem::recursive_directory_iterator(corpus)) {
        const std::string name = entry.path().filename();
        const bool is_found_by_fuzzer = name.find_first_not_of("0123456789abcdef") == std::string::npos;
        if (entry.is_regular_file() && !is_found_by_fuzzer) {
            const std::string fuzzer = entry.path().parent_path().filename();
            inputs.push_back({std::filesystem::relative(entry.path(), corpus), read_input(entry.path()),
                              &steps_of(fuzzer)});
        }
    }
    return inputs;
}

void fail_each_call(const input &played)
{
    failing sound(0, 0);
    sound.play_all(played);
    for (size_t number = played.content.empty() ? 1 : sound.first_call(); number <= sound.count_calls();
         number++) {
        bool has_more = true;
        for (size_t variant = 0; has_more; variant++) {
            failing run(number, variant);
            run.play_all(played);
            run.report(played, sound);
            has_more = run.has_more_errors();
        }
    }
}

} // namespace

} // namespace fuzz

int main(int, char **argv)
{
    for (const fuzz::input &each : fuzz::read_inputs(argv[1])) {
        fuzz::fail_each_call(each);
    }
}
