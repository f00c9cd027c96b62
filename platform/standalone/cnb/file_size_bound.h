// The limit of the files that a confined worker may write. It counts for the buffer's memory file,
// too, until that has its size and is sealed.
#pragma once

#include <cstdint>

namespace platform {

// From now on no file may exceed the larger of these sizes in bytes, and once the buffer is
// reserved no file may exceed `files`. A lower inherited limit is kept. False with errno when the
// kernel refuses.
bool start_file_size_bound(uint64_t buffer, uint64_t files);

// The buffer is reserved. Does nothing when no bound has been started.
void tighten_file_size_bound();

void reset_file_size_bound(); // forgets the bound, for tests; the limit itself stays

} // namespace platform
