#include <csignal>
#include <cstdlib>

#include "bin/vexa_stillimage.h"
#include "platform/media_item.h"

namespace {

constexpr int most_signals = 19; // one more, and the process is taken to be stuck

extern "C" void count_termination(int /*signal*/)
{
    if (DIE4.fetch_add(1) + 1 > most_signals) {
        abort();
    }
}

} // namespace

void install_termination_handler()
{
    struct sigaction action = {};
    action.sa_handler = count_termination;
    // Codecs read the picture through stdio, which must not see interrupted calls as errors.
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (const int signal : {SIGTERM, SIGQUIT, SIGINT}) {
        sigaction(signal, &action, nullptr);
    }
}

void ignore_signals_of_writes()
{
    signal(SIGPIPE, SIG_IGN);
    signal(SIGXFSZ, SIG_IGN);
}
