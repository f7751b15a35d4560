#include "LoopThread.h"

#include <pthread.h>

namespace Benchmarks {

LoopThread::LoopThread(std::optional<int> processor)
    : m_Thread([this, processor] {
          std::optional<Pinned> pinned;
          if (processor) {
              pinned.emplace(*processor);
          }
          g_main_loop_run(m_Loop.get());
      })
{}

LoopThread::~LoopThread()
{
    // On the loop's thread: a quit before the loop runs is lost.
    g_main_context_invoke_full(
        m_Context.get(), G_PRIORITY_DEFAULT,
        [](gpointer loop) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return G_SOURCE_REMOVE;
        },
        m_Loop.get(), nullptr);
    m_Thread.join();
}

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

Pinned::Pinned(int processor)
{
    pthread_getaffinity_np(pthread_self(), sizeof m_Before, &m_Before);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    if (pthread_setaffinity_np(pthread_self(), sizeof one, &one) != 0) {
        g_error("cannot pin a thread to processor %d", processor);
    }
}

Pinned::~Pinned()
{
    pthread_setaffinity_np(pthread_self(), sizeof m_Before, &m_Before);
}

} // namespace Benchmarks
