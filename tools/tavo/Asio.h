#pragma once

// Asio, for every file of `tavo serve` that uses it. Asio chooses between aligned_alloc and
// operator new for its handler memory by looking at the standard library's configuration; a
// file that included Asio before any standard header would choose otherwise than the rest, and
// memory allocated by one would be freed by the other the wrong way. A standard header first
// settles the choice the same way everywhere.
#include <cstddef>

#include <asio.hpp>
