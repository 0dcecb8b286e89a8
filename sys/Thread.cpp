#include "sys/Thread.h"

Thread::Thread(RefCntPtr<Runnable> runnable) : m_runnable(std::move(runnable)) {}

Thread::~Thread()
{
    if (m_thread.joinable())
        m_thread.join();
}

void Thread::Start()
{
    RefCntPtr<Runnable> runnable = m_runnable;
    m_thread = std::thread([runnable]() { runnable->Run(); });
}

void Thread::Join()
{
    if (m_thread.joinable())
        m_thread.join();
}
