#include "zel/types/string.h"

namespace zel {

// One instantiation of each form for the whole program.
template class basic_string_t<char>;
template class basic_string_t<char16_t>;

}  // namespace zel
