#include "QKThreadHandOff_p.h"

void QKThreadHandOff::post(std::function<void()> block)
{
    {
        std::lock_guard lock(m_mutex);
        m_blocks.push_back(std::move(block));
    }
    QMetaObject::invokeMethod(this, "drain", Qt::QueuedConnection);
}

void QKThreadHandOff::drain()
{
    std::function<void()> block;
    {
        std::lock_guard lock(m_mutex);
        if (m_blocks.empty())
            return;
        block = std::move(m_blocks.front());
        m_blocks.pop_front();
    }
    block();
}
