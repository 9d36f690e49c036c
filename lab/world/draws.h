/*
 * Numbers drawn from a number: the same ones on every machine. A plain value, so that it can lie
 * in shared memory and be copied.
 */
#ifndef CORVANE_LAB_DRAWS_H
#define CORVANE_LAB_DRAWS_H

#include <cmath>
#include <cstdint>

namespace corvane::lab {

/* Two draws within one expression need an order: compilers differ in what they evaluate first. */
class Draws {
public:
    explicit Draws(std::uint64_t seed) : state_(seed) { next(); }

    std::uint64_t next() { // splitmix64
        state_ += 0x9e3779b97f4a7c15U;
        std::uint64_t z = state_;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9U;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
        return z ^ (z >> 31);
    }

    double unit() { return static_cast<double>(next() >> 11) * 0x1p-53; } // [0, 1)
    bool chance(double probability) { return unit() < probability; }
    double between(double low, double high) { return low + (high - low) * unit(); }
    /* Both ends included. */
    int whole(int low, int high) {
        return low + static_cast<int>(next() % static_cast<std::uint64_t>(high - low + 1));
    }
    /* The time until the next of events that come at random, so many apart on average. */
    double waiting(double mean) { return -mean * std::log(1 - unit()); }

    template <class T, std::size_t N>
    const T &oneOf(const T (&choices)[N]) {
        return choices[next() % N];
    }

private:
    std::uint64_t state_;
};

} // namespace corvane::lab

#endif
