// Map<int, int> against std::map and a sorted std::vector searched with std::lower_bound.
// Each benchmark builds or searches a container of range(0) keys; items/s (insertions or
// lookups per second) compares directly.
#include "UtlArray.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

namespace {

// The keys 0, 3, 6, ... in a fixed shuffled order.
std::vector<int> shuffledKeys(int count) {
    std::vector<int> keys(static_cast<std::size_t>(count));
    std::iota(keys.begin(), keys.end(), 0);
    for (int& k : keys) {
        k *= 3;
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937(42));
    return keys;
}

void sortedVectorInsert(std::vector<std::pair<int, int>>& entries, int key, int value) {
    auto at = std::lower_bound(entries.begin(), entries.end(), key,
                               [](const std::pair<int, int>& e, int k) { return e.first < k; });
    if (at != entries.end() && at->first == key) {
        at->second = value;
    } else {
        entries.insert(at, {key, value});
    }
}

void BM_MapInsert(benchmark::State& state) {
    const std::vector<int> keys = shuffledKeys(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        utl::Map<int, int> map(static_cast<unsigned int>(keys.size()), 0);
        for (int key : keys) {
            map.insert(key, key);
        }
        benchmark::DoNotOptimize(map.getAt(0));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_StdMapInsert(benchmark::State& state) {
    const std::vector<int> keys = shuffledKeys(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::map<int, int> map;
        for (int key : keys) {
            map[key] = key;
        }
        benchmark::DoNotOptimize(map.begin()->second);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_SortedVectorInsert(benchmark::State& state) {
    const std::vector<int> keys = shuffledKeys(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::vector<std::pair<int, int>> entries;
        entries.reserve(keys.size());
        for (int key : keys) {
            sortedVectorInsert(entries, key, key);
        }
        benchmark::DoNotOptimize(entries.front().second);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Looks up 65536 keys per iteration drawn at random from the present keys, a third of them
// turned into misses. A shorter sequence repeated every iteration is learnt by the branch
// predictor of a modern core and would measure the predictor rather than the search.
template <class Find>
void runFinds(benchmark::State& state, Find find) {
    const std::vector<int> keys = shuffledKeys(static_cast<int>(state.range(0)));
    std::mt19937 random(7);
    std::vector<int> probes(65536);
    for (std::size_t i = 0; i < probes.size(); ++i) {
        probes[i] = keys[random() % keys.size()] + (i % 3 == 0 ? 1 : 0);
    }
    for (auto _ : state) {
        int found = 0;
        for (int key : probes) {
            found += find(key);
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(probes.size()));
}

void BM_MapFind(benchmark::State& state) {
    const std::vector<int> keys = shuffledKeys(static_cast<int>(state.range(0)));
    utl::Map<int, int> map(static_cast<unsigned int>(keys.size()), 0);
    for (int key : keys) {
        map.insert(key, key);
    }
    runFinds(state, [&map](int key) {
        const utl::Pair<int, int>* entry = map.find(key);
        return entry != nullptr ? entry->mValue : 0;
    });
}

void BM_StdMapFind(benchmark::State& state) {
    const std::vector<int> keys = shuffledKeys(static_cast<int>(state.range(0)));
    std::map<int, int> map;
    for (int key : keys) {
        map[key] = key;
    }
    runFinds(state, [&map](int key) {
        auto it = map.find(key);
        return it != map.end() ? it->second : 0;
    });
}

void BM_SortedVectorFind(benchmark::State& state) {
    const std::vector<int> keys = shuffledKeys(static_cast<int>(state.range(0)));
    std::vector<std::pair<int, int>> entries;
    for (int key : keys) {
        sortedVectorInsert(entries, key, key);
    }
    runFinds(state, [&entries](int key) {
        auto at = std::lower_bound(entries.begin(), entries.end(), key,
                                   [](const std::pair<int, int>& e, int k) { return e.first < k; });
        return at != entries.end() && at->first == key ? at->second : 0;
    });
}

}  // namespace

BENCHMARK(BM_MapInsert)->Arg(50)->Arg(1000);
BENCHMARK(BM_StdMapInsert)->Arg(50)->Arg(1000);
BENCHMARK(BM_SortedVectorInsert)->Arg(50)->Arg(1000);
BENCHMARK(BM_MapFind)->Arg(50)->Arg(1000);
BENCHMARK(BM_StdMapFind)->Arg(50)->Arg(1000);
BENCHMARK(BM_SortedVectorFind)->Arg(50)->Arg(1000);
