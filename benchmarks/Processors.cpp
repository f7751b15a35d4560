// SPDX-License-Identifier: MIT
#include "Processors.h"

#include <glib.h>
#include <pthread.h>

namespace Benchmarks {

std::vector<int> Processors()
{
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    pthread_getaffinity_np(pthread_self(), sizeof allowed, &allowed);
    std::vector<int> processors;
    for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &allowed)) {
            processors.push_back(i);
        }
    }
    return processors;
}

void Pin(int processor)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    if (pthread_setaffinity_np(pthread_self(), sizeof one, &one) != 0) {
        g_error("cannot pin a thread to processor %d", processor);
    }
}

Pinned::Pinned(int processor)
{
    pthread_getaffinity_np(pthread_self(), sizeof m_Before, &m_Before);
    Pin(processor);
}

Pinned::~Pinned()
{
    pthread_setaffinity_np(pthread_self(), sizeof m_Before, &m_Before);
}

} // namespace Benchmarks
