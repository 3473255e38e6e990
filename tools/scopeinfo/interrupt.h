// SIGINT and SIGTERM as a question that long work asks now and then.
#pragma once

namespace pysource::tools {

// From here on the first SIGINT or SIGTERM sets a flag; a second one ends the process, as ever.
void WatchForInterrupt();
bool IsInterrupted();

}  // namespace pysource::tools
