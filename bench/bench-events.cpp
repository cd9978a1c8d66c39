/*
 * What the daemon does after each buffer with what a plug-in tells, against the plug-in's own part of it.
 */
#include <benchmark/benchmark.h>

#include "bench-plugin.hpp"
#include "log.hpp"
#include "pair.hpp"
#include "pcm-event.hpp"

namespace {

struct fixture {
	explicit fixture(size_t n_events) : source{bed, n_events}
	{
		hs_log_init();
	}

	hs_daemon_bed bed;
	hs_bench_source source;
};

void unchanged_events(benchmark::State &state)
{
	fixture f{static_cast<size_t>(state.range(0))};
	hs_bench_pair(
		state, [&f] { hs_pcm_handle_events(f.source.source, false); }, [&f] { f.source.plugin.build_all(); });
}

void changed_events(benchmark::State &state)
{
	fixture f{static_cast<size_t>(state.range(0))};
	hs_bench_pair(
		state,
		[&f] {
			f.source.plugin.change();
			hs_pcm_handle_events(f.source.source, false);
		},
		[&f] {
			f.source.plugin.change();
			f.source.plugin.build_all();
		});
}

/** Whether an event costs the same among many as among few. */
void linear_events(benchmark::State &state)
{
	constexpr size_t few = 16;
	const auto many = static_cast<size_t>(state.range(0));
	fixture f{many};
	const hs_bench_source other{f.bed, few};
	hs_bench_pair(
		state, [&f] { hs_pcm_handle_events(f.source.source, false); },
		[&other] { hs_pcm_handle_events(other.source, false); }, static_cast<double>(many) / few);
}

} // namespace

BENCHMARK(unchanged_events)->Arg(1)->Arg(4)->Arg(16)->Arg(64)->Arg(256)->UseManualTime();
BENCHMARK(changed_events)->Arg(1)->Arg(4)->Arg(16)->Arg(64)->Arg(256)->UseManualTime();
BENCHMARK(linear_events)->Arg(256)->UseManualTime();

BENCHMARK_MAIN();
