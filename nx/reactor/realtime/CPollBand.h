// Inside the library only: what poll(2) tells of a descriptor (POLLIN and its siblings; a readiness
// signal carries the same bits and calls them its band), and the mask to dispatch for it.
#pragma once

class CPollBand {
public:
    // What of `wanted` is the case at this moment, and failures; POLLNVAL when it cannot be asked.
    static long Now(int fd, short wanted);

    // The descriptor failed, or its peer hung up.
    static bool HasFailed(long band);

    // NX_MASK_CLOSE alone after a failure; else what leads to OnInput and OnOutput.
    static long ToMask(long band);

    // The same for a socket that may still have its connect before it: until then poll(2) calls it
    // hung up.
    static long ToMaskOfConnecting(long band);
};
