#pragma once

#include <algorithm>
#include <sys/resource.h>

#include <gtest/gtest.h>

#include "common/OVRAException.h"

namespace vidapp::test {

// Sets the soft descriptor limit for the test's duration, so tests can run a process out of
// descriptors (or give it more than 1024) and restore the limit afterwards.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t soft) {
        // The sanitizer runtime checks a type it meets for the first time through a pipe of its
        // own; meeting the exception type now, with descriptors free, spares it that later.
        try {
            throw CommunicationException(0, "");
        } catch (const CommunicationException& e) {
            const CommunicationException copy(e);
            EXPECT_STREQ(copy.what(), "");
        }
        getrlimit(RLIMIT_NOFILE, &saved);
        rlimit changed = saved;
        changed.rlim_cur = std::min(soft, saved.rlim_max);
        ok = setrlimit(RLIMIT_NOFILE, &changed) == 0 && changed.rlim_cur == soft;
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &saved); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

    bool applied() const { return ok; }

private:
    rlimit saved{};
    bool ok = false;
};

} // namespace vidapp::test
