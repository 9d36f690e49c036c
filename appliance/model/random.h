/*
 * Numbers drawn from a seed, the same on every machine and with every standard library. A draw is a
 * pure function of its seed and of what it is for, so that a model which is restored in the middle
 * goes on exactly as it would have, with nothing to keep but a count of its draws.
 */
#ifndef CORVANE_APPLIANCE_MODEL_RANDOM_H
#define CORVANE_APPLIANCE_MODEL_RANDOM_H

#include <cstdint>

namespace corvane::appliance {

/* Spreads every bit of the value over all of them (the finaliser of splitmix64). */
constexpr std::uint64_t mixBits(std::uint64_t value) {
    value += 0x9e3779b97f4a7c15ULL;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
    return value ^ (value >> 31);
}

/* What a draw is for; draws for different things do not depend on each other. */
enum class Draw : std::uint64_t { Beginning = 1, Ambient, Household, Return, CommandTime, Garbage };

class Random {
public:
    /* The sequence for one thing; `index` tells its instances (days, events) apart. */
    Random(std::uint64_t seed, Draw what, std::uint64_t index = 0)
        : state_(mixBits(mixBits(seed ^ mixBits(static_cast<std::uint64_t>(what))) ^ index)) {}

    std::uint64_t next() { return state_ = mixBits(state_); }
    /* In [0, 1). */
    double unit() { return static_cast<double>(next() >> 11) * 0x1p-53; }
    /* In [low, high). */
    double between(double low, double high) { return low + (high - low) * unit(); }
    /* In [low, high], both included. */
    int whole(int low, int high) {
        return low + static_cast<int>(next() % static_cast<std::uint64_t>(high - low + 1));
    }

private:
    std::uint64_t state_;
};

} // namespace corvane::appliance

#endif
