#include <kest/MemTag.h>

namespace oru {

__thread int MemTag::l_mem_tag;

} // namespace oru
