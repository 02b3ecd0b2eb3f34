// A stress for live benchmarks: sends the chain served on the session bus RATE SetParameter calls a
// second for SECONDS, as `orvandeldsp set` sends them, alternating a parameter between two values.
// Usage: orvandeldsp-set-flood MODULE KEY VALUE1 VALUE2 RATE SECONDS
#include "tools/ChainClient.h"
#include "tools/ToolError.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

using Zelmar::Host::ChainClient;

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::fprintf(stderr, "usage: orvandeldsp-set-flood MODULE KEY VALUE1 VALUE2 RATE SECONDS\n");
        return 2;
    }
    long const rate = std::atol(argv[5]);
    long const calls = rate * std::atol(argv[6]);
    try {
        ChainClient client(G_BUS_TYPE_SESSION);
        timespec start{}, due{};
        clock_gettime(CLOCK_MONOTONIC, &start);
        for (long call = 0; call < calls; ++call) {
            client.setParameter({argv[1], argv[2], argv[3 + call % 2]});
            // Against the start, so that a slow answer is made up for by the next calls.
            long long const at = (long long)start.tv_nsec + (call + 1) * 1000000000LL / rate;
            due.tv_sec = start.tv_sec + time_t(at / 1000000000LL);
            due.tv_nsec = long(at % 1000000000LL);
            while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr) == EINTR) {
            }
        }
        timespec end{};
        clock_gettime(CLOCK_MONOTONIC, &end);
        double const seconds = double(end.tv_sec - start.tv_sec) + 1e-9 * double(end.tv_nsec - start.tv_nsec);
        std::printf("set-flood: %ld calls in %.2f s (%.0f a second)\n", calls, seconds,
                    double(calls) / seconds);
    } catch (Zelmar::Host::ToolError const& e) {
        std::fprintf(stderr, "set-flood: %s\n", e.what());
        return 1;
    }
    return 0;
}
