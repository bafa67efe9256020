#include <kest/WebDpiLauncher.h>

namespace oru {

unsigned int WebDpiLauncher::Launch(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                                    fdt::intrusive_ptr<Conn> &conn) {
  fdt::intrusive_ptr<WebDpi> web(MakeInspector(conn));
  if (!web) {
    return INSPECT_FINISHED;
  }
  web->m_result = INSPECT_NOTHING;
  const unsigned char other = conn->m_side != 0 ? 0 : 1;
  parent->RegisterCallback(conn, other, InspectorCallback(web.get()), Inspector::EVENT_DATA);
  web->Inspect(parent, pkt, tuple, conn);
  return INSPECT_FINISHED;
}

} // namespace oru
