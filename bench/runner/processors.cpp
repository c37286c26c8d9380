#include "processors.h"

#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::vector<int> Allowed()
{
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof(allowed), &allowed);
    std::vector<int> processors;
    for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &allowed))
            processors.push_back(processor);
    }
    return processors;
}

void Pin(int processor)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    if (sched_setaffinity(0, sizeof(one), &one) != 0)
        throw std::runtime_error("cannot run on processor " + std::to_string(processor) +
                                 ": it is not there, or this process may not use it");
}

std::optional<int> g_another;

}  // namespace

int PinToOneProcessor(int wanted)
{
    const std::vector<int> allowed = Allowed();
    const int chosen = wanted < 0 ? allowed.back() : wanted;
    for (const int processor : allowed) {
        if (processor != chosen)
            g_another = processor;
    }
    Pin(chosen);
    return chosen;
}

std::optional<int> AnotherProcessor()
{
    return g_another;
}

OnProcessor::OnProcessor(int processor)
{
    sched_getaffinity(0, sizeof(m_before), &m_before);
    Pin(processor);
}

OnProcessor::~OnProcessor()
{
    sched_setaffinity(0, sizeof(m_before), &m_before);
}
