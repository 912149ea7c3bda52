#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <vector>

// Times several pieces of code against each other on a machine whose speed drifts: in every round each one runs once,
// one right after the other, and only ratios within a round are used.

// Keeps the compiler from removing a computation whose result nobody reads.
template<class Value>
inline void KeepResult(Value&& value)
{
    asm volatile("" : : "g"(&value) : "memory");
}

inline double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

inline double GeometricMean(const std::vector<double>& values)
{
    double sum = 0;
    for (const double value : values)
        sum += std::log(value);
    return std::exp(sum / static_cast<double>(values.size()));
}

// Seconds for one call of `work`, from as many calls as take about `seconds` in all.
template<class Work>
double SecondsPerCall(Work&& work, double seconds)
{
    using Clock = std::chrono::steady_clock;
    std::size_t calls = 0;
    std::size_t batch = 1;
    const auto start = Clock::now();
    while (true) {
        for (std::size_t i = 0; i < batch; ++i)
            work();
        calls += batch;
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        if (elapsed >= seconds)
            return elapsed / static_cast<double>(calls);
        if (elapsed < seconds / 8)
            batch *= 2;
    }
}

struct PairedResult
{
    double m_OursSeconds; // median, one call
    double m_PeerSeconds; // median, one call
    double m_Ratio;       // median over the rounds of ours / peer
};

// Runs the two in turn `rounds` times, after one round that is not counted. Every second round starts with the peer, so
// that neither always finds the caches the other one left.
template<class Ours, class Peer>
PairedResult MeasurePaired(Ours&& ours, Peer&& peer, int rounds = 15, double secondsPerRound = 0.004)
{
    std::vector<double> oursSeconds;
    std::vector<double> peerSeconds;
    std::vector<double> ratios;
    for (int round = -1; round < rounds; ++round) {
        double oursTime = 0;
        double peerTime = 0;
        if (round % 2 == 0) {
            oursTime = SecondsPerCall(ours, secondsPerRound);
            peerTime = SecondsPerCall(peer, secondsPerRound);
        } else {
            peerTime = SecondsPerCall(peer, secondsPerRound);
            oursTime = SecondsPerCall(ours, secondsPerRound);
        }
        if (round < 0)
            continue;
        oursSeconds.push_back(oursTime);
        peerSeconds.push_back(peerTime);
        ratios.push_back(oursTime / peerTime);
    }
    return {Median(oursSeconds), Median(peerSeconds), Median(ratios)};
}
