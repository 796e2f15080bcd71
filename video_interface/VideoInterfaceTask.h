#pragma once

#include "common/Timer.h"

namespace OVRA {

class VideoInterfaceAlgorithmProxy;

// The video application's periodic status report, run by the proxy's timer thread. A report that
// throws a standard exception is logged with error 1 and the task cancels itself; the timer goes on.
class VideoInterfaceTask : public Task {
public:
    // proxy may be null: the task then does nothing.
    explicit VideoInterfaceTask(VideoInterfaceAlgorithmProxy* proxy) : mProxy(proxy) {}
    ~VideoInterfaceTask() override;

    void run() override;

private:
    VideoInterfaceAlgorithmProxy* const mProxy;
};

} // namespace OVRA
