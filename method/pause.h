// The waits between two questions to the array.
#pragma once

namespace tf {

// Sleeps this many seconds, also when the host's process catches signals meanwhile: a pair's few
// retries stand for the minute that the array is given, not for the signals of a busy framework.
void pause_for(unsigned seconds);

}  // namespace tf
