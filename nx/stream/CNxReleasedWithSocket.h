// What lives as long as a connected socket and ends with it, on whichever thread that is: a place
// among the connections that somebody counts.
#pragma once

class CNxReleasedWithSocket {
public:
    virtual ~CNxReleasedWithSocket() = default;
};
