#pragma once
// How other threads wake a loop: a descriptor in the loop's own wait that
// any thread can make readable. An eventfd where the process enabled it
// (one descriptor, an 8-byte counter), else a pipe with a non-blocking read
// side.
#include "util/EventLoop.h"

class SelfPipeException : public BaseException {
public:
    // "<thread>: about to throw a SelfPipeException: <text>: %m"
    explicit SelfPipeException(const char* text);
};

class SelfPipe : public PolledReadPipe {
public:
    SelfPipe() = default;
    ~SelfPipe() override;

    // Process-wide, before the first setup(): use eventfd from now on.
    // False when this kernel or sandbox has none.
    static bool enableFastVersion();
    static bool fastVersionEnabled();

    // Creates the descriptors; throws SelfPipeException "can't create selfpipe".
    void setup();
    // From any thread: makes the read side readable. A full pipe is fine.
    void trigger() const;
    // Blocks until triggered, then serves the trigger in the caller.
    void pollForTrigger();
    // True when all the work is done; false asks for another round.
    virtual bool when_triggered() = 0;

    bool when_events(PipeReadHandle fd) override;
    void add_to_eventloop(EventLoop* eloop) override;
    void remove_from_eventloop(EventLoop* eloop) override;

    PollableDescriptor readSide() const;
    int writeFd() const { return _eventfd >= 0 ? _eventfd : _write.fd(); }
    bool isEventfd() const { return _eventfd >= 0; }

private:
    int _eventfd = -1;
    WritablePipe _write;
};

// The loop's own self-pipe: runs the queued actors.
class InThreadActorNotify : public SelfPipe {
public:
    explicit InThreadActorNotify(EventLoop* owner) : _ita_owner(owner) {}
    bool when_triggered() override;

    EventLoop* _ita_owner;
};
