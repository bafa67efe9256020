// The host's side of attributes: the delivery handler that each thread's
// attribute manager gets at the end of kest_init.
#ifndef KEST_ATTRIBUTES_ATTRIBUTEAPI_H
#define KEST_ATTRIBUTES_ATTRIBUTEAPI_H

#include <stdint.h>

namespace oru {

// Calls the host listener `listener` with the current handle, the connection
// number, id, length and data, arg and more packed into one int (arg in the
// upper 16 bits, the low 16 bits of more in the lower) and the user word of
// the kest_classify running on this thread.
void DeliverAttribute(uint64_t conn_id, void *listener, int id, int length, const uint8_t *data,
                      int more, int arg);

} // namespace oru

#endif
