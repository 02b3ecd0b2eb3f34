#include "dsp/Chain.h"
#include "dsp/ChainCheck.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <glib.h>
#include <string>

using namespace Zelmar;

namespace {

// A config of `gains` gain modules in series on the left channel, as a large generated chain would be.
std::string writeSeriesConfig(int gains)
{
    std::string text =
        "<dsp>\n<module type=\"input\" id=\"in\"/>\n"
        "<module type=\"output\" id=\"out\"><parameter id=\"interleave-pattern\">01</parameter>"
        "</module>\n";
    for (int i = 0; i < gains; ++i)
        text += "<module type=\"gain\" id=\"g" + std::to_string(i) +
                "\"><parameter id=\"gain\">-0.01</parameter>" + "</module>\n";
    std::string previous = "in[0]";
    for (int i = 0; i < gains; ++i) {
        std::string const id = "g" + std::to_string(i);
        text += "<cable out=\"" + previous + "\" in=\"" + id + "[0]\"/>\n";
        previous = id + "[0]";
    }
    text += "<cable out=\"" + previous + "\" in=\"out[0]\"/>\n<cable out=\"in[1]\" in=\"out[1]\"/>\n</dsp>\n";
    std::string const path =
        std::string(g_get_tmp_dir()) + "/orvandeldsp-bench-series-" + std::to_string(gains) + ".xml";
    g_file_set_contents(path.c_str(), text.c_str(), gssize(text.size()), nullptr);
    return path;
}

// Loading and compiling should grow linearly with the module count: compare the time per module.
void BM_LoadAndCompile(benchmark::State& state)
{
    std::string const path = writeSeriesConfig(int(state.range(0)));
    for (auto _ : state) {
        Chain chain(48000, path);
        benchmark::DoNotOptimize(chain.getModules().size());
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
    std::remove(path.c_str());
}
BENCHMARK(BM_LoadAndCompile)->Arg(1000)->Arg(4000)->Arg(10000)->Unit(benchmark::kMillisecond);

// What `orvandeldsp check` does before it loads: the same file read again, every problem looked for.
void BM_CheckConfig(benchmark::State& state)
{
    std::string const path = writeSeriesConfig(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(ChainCheck::check(path, 48000).size());
    state.SetItemsProcessed(int64_t(state.iterations()) * state.range(0));
    std::remove(path.c_str());
}
BENCHMARK(BM_CheckConfig)->Arg(1000)->Arg(4000)->Arg(10000)->Unit(benchmark::kMillisecond);

} // namespace
