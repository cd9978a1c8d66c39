/*
 * Two ways to do one thing, timed side by side.
 *
 * Absolute times say little on a machine that others use as well. A pair runs both ways in turns, some ten
 * thousandths of a second each, and tells how they compare: the counters "own" and "floor" are processor
 * time (user and system) of one call in nanoseconds, "ratio" is what a table of figures is made of. Each
 * repetition of a benchmark is one pair.
 */
#pragma once

#include <cstdint>

#include <benchmark/benchmark.h>

#include <time.h>

/** Processor time of this thread in nanoseconds. */
inline int64_t hs_bench_now()
{
	timespec now{};
	clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
	return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

template <typename Way>
int64_t hs_bench_time(Way &way, int64_t n_calls)
{
	const int64_t start = hs_bench_now();
	for (int64_t i = 0; i < n_calls; ++i)
		way();
	return hs_bench_now() - start;
}

/** How often a way is called to take some 300 microseconds, and at most `most` times. */
template <typename Way, typename Between>
int64_t hs_bench_batch(Way &way, Between &between, int64_t most)
{
	constexpr int64_t wanted = 300000;
	int64_t n_calls = 1;
	for (;;) {
		const int64_t taken = hs_bench_time(way, n_calls);
		between();
		if (taken >= wanted || n_calls >= most)
			return n_calls;
		n_calls = n_calls * 2 < most ? n_calls * 2 : most;
	}
}

/**
 * Times `own` against `floor`, with what `between` does after each turn left out, and never more than
 * `most` calls to a turn. One call of `own` does as much as `scale` calls of `floor`.
 */
template <typename Own, typename Floor, typename Between>
void hs_bench_pair(benchmark::State &state, Own own, Floor floor, Between between, int64_t most = 1 << 20,
		   double scale = 1)
{
	const int64_t n_own = hs_bench_batch(own, between, most);
	const int64_t n_floor = hs_bench_batch(floor, between, most);
	int64_t own_time = 0;
	int64_t floor_time = 0;
	int64_t n_turns = 0;
	const auto take_own = [&] {
		const int64_t taken = hs_bench_time(own, n_own);
		own_time += taken;
		between();
		return taken;
	};
	const auto take_floor = [&] {
		const int64_t taken = hs_bench_time(floor, n_floor);
		floor_time += taken;
		between();
		return taken;
	};
	for (auto _ : state) {
		/* Who comes first finds colder caches. */
		const int64_t taken = n_turns++ % 2 ? take_own() + take_floor() : take_floor() + take_own();
		state.SetIterationTime(static_cast<double>(taken) * 1e-9);
	}
	const double own_ns = static_cast<double>(own_time) / static_cast<double>(n_turns * n_own);
	const double floor_ns = static_cast<double>(floor_time) / static_cast<double>(n_turns * n_floor);
	state.counters["own"] = own_ns;
	state.counters["floor"] = floor_ns;
	state.counters["ratio"] = own_ns / (floor_ns * scale);
}

template <typename Own, typename Floor>
void hs_bench_pair(benchmark::State &state, Own own, Floor floor, double scale = 1)
{
	hs_bench_pair(
		state, own, floor, [] {}, 1 << 20, scale);
}
