// pelk_file.h - descriptors and files that keep off the standard streams.
//
// The descriptors of the standard streams are the host's, closed ones too. What the host or the log writes to them must
// never arrive in a pipe, a socket or a file of the library's.
#ifndef PELK_FILE_H
#define PELK_FILE_H

#include <stdio.h>

// The lowest descriptor that the library keeps.
inline constexpr int PELK_DESCRIPTOR_MIN = 3;

// pelk_lift moves a new descriptor below PELK_DESCRIPTOR_MIN up to it or above, closed on exec. Returns the
// descriptor's new place; -1 with errno set, the descriptor then being closed. A negative descriptor, as open returns
// it, comes back unchanged.
int pelk_lift(int descriptor);

// pelk_fopen opens a file for reading, or creates or empties it for writing; its descriptor is lifted. Null with errno
// set.
enum class pelk_file_mode { read, write };
FILE *pelk_fopen(const char *path, pelk_file_mode mode);

#endif  // PELK_FILE_H
