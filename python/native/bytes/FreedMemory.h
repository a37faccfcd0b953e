#pragma once

/// Lets the process keep the memory that it frees, up to 128 MB for each thread, instead of returning it to
/// the system. A run of blocks of equal size then touches new pages for the first blocks only. No effect with
/// other C libraries than glibc.
void keepFreedMemory();
