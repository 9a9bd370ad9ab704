#include "CBlockPipe.h"

#include <algorithm>

#include "HelperThread.h"

CBlockPipe::CBlockPipe(int channels, long blockFrames, int blocks)
    : m_channels(channels), m_blockFrames(blockFrames),
      m_blocks(static_cast<size_t>(std::max(2, blocks))) {
    for (Block& b : m_blocks)
        b.samples.reset(new float[static_cast<size_t>(blockFrames) * channels]);
}

void CBlockPipe::Start(std::function<void()> work) {
    m_thread = StartHelperThread(std::move(work));
}

void CBlockPipe::Stop() {
    {
        std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}
