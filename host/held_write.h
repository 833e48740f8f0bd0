// Writing that cannot end the calling process.
#pragma once

namespace tessera {

// Writes a line to a descriptor. A closed pipe and a file-size limit cost the line and nothing
// else: the signal that comes with them is held back from this thread and taken up.
void write_line(int fd, const char *line);

}  // namespace tessera
