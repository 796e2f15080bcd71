#pragma once

// What a video buffer manager runs when it is started: the camera capture loop, which writes
// frames through the manager's BufferWriter side until it is told to stop. Implemented by the
// algorithm proxy. Both calls come from the thread that starts or stops the manager, under the
// manager's start/stop lock.
class ImageCapturer {
public:
    virtual ~ImageCapturer() = default;

    // Runs the capture on the calling thread and returns when it ends. An ISPGraphException
    // means the processing graph could not be loaded.
    virtual void startImageCapturing() = 0;
    // Releases what the capture set up once the manager is stopped; nothing by default. An
    // ISPGraphException means the processing graph could not be unloaded.
    virtual void stopImageCapturing() {}
};
