// Inside the library only: keeps descriptors of the library off the numbers of the standard
// streams.
#pragma once

// A process that was started with one of its descriptors 0 to 2 closed gives that number to the
// next descriptor it makes; what anyone prints would then go into it. So every descriptor that the
// library keeps, or that others may meet, passes through here as soon as it is made, before it
// is registered anywhere or its number is noted.
//
// Returns `fd` itself when it is negative (errno is kept: that of the call that failed) or above 2.
// Else closes it and returns a duplicate above 2, close-on-exec; -1 with errno when there is none
// (EMFILE: then `fd` is closed, too).
[[nodiscard]] int ToHighDescriptor(int fd);
