// SPDX-License-Identifier: MIT
// For an object that GLib hands to another thread as user data. ThreadSanitizer does not see the
// locks inside GLib by which it gets there, and would report its first use as a race.
#pragma once

#include <atomic>

namespace Velmora::Internal {

class Crossing
{
public:
    // The last step of the thread that has made the object.
    void Leave() { m_HasLeft.store(true, std::memory_order_release); }
    // The first step of the thread that gets it.
    void Arrive() const { static_cast<void>(m_HasLeft.load(std::memory_order_acquire)); }

private:
    std::atomic<bool> m_HasLeft{false};
};

} // namespace Velmora::Internal
