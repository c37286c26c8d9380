/// @file
/// On which processors this process runs. Its children inherit it.
#ifndef PELMAR_BENCH_PROCESSORS_H
#define PELMAR_BENCH_PROCESSORS_H

#include <sched.h>

#include <optional>

/// Pins this process to the wanted one, or to the last that it may use when `wanted` is below 0.
/// Returns which it is.
int PinToOneProcessor(int wanted);

/// One that this process might use besides that; nothing when there is none.
std::optional<int> AnotherProcessor();

/// While it lives, this process runs, and starts children, on that processor.
class OnProcessor {
public:
    explicit OnProcessor(int processor);
    ~OnProcessor();
    OnProcessor(const OnProcessor&) = delete;
    OnProcessor& operator=(const OnProcessor&) = delete;

private:
    cpu_set_t m_before;
};

#endif
