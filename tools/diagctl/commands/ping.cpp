// diagctl ping: is the daemon there?
#include "commands/action.h"

#include <cstdio>

namespace
{

struct {
    unsigned count = 1;
} ping;

constexpr std::chrono::seconds INTERVAL(1);

exit_status run_ping(const broker_address &address)
{
    const exit_status opened =
        open_session(address, {}, [](std::string_view topic, std::span<const uint8_t> payload, bool) {
            request_take_answer(topic, payload);
        });
    if (opened != STATUS_SUCCESS) {
        return opened;
    }
    exit_status status = STATUS_SUCCESS;
    std::string error;
    for (unsigned i = 0; i < ping.count && status == STATUS_SUCCESS; i++) {
        if (i > 0 && session_wait([] { return false; }, INTERVAL, error) == session_end::LOST) {
            status = report_lost(address, error);
            break;
        }
        const auto start = std::chrono::steady_clock::now();
        status = request_run(address, {.command = "noop"});
        if (status == STATUS_SUCCESS) {
            const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
            printf("the daemon at %s:%d has answered in %.1f ms\n", address.host.c_str(), address.port,
                   taken.count());
            fflush(stdout);
        }
    }
    session_close();
    return status;
}

} // namespace

void add_ping_command(CLI::App &app, command_context &context)
{
    CLI::App *const command = add_command(
        app, context, "ping", "Ask the daemon whether it is there, and show how long its answer takes.",
        [&context] { return run_ping(context.address); });
    command->add_option("--count", ping.count, "How often, once a second")
        ->type_name("N")
        ->check(CLI::Range(1U, 1000000U))
        ->capture_default_str();
}
