// Visibility of the plug-in SDK. The library is built with hidden visibility;
// everything a plug-in or host may reach carries KEST_API.
#ifndef KEST_EXPORT_H
#define KEST_EXPORT_H

#define KEST_API __attribute__((visibility("default")))

// The library's thread words sit in the static thread-local block, so that
// the library and plug-ins reach them with one load off the thread pointer
// rather than a call per access. The library is loaded with its host, or
// opened later with the few hundred bytes this needs to spare.
#define KEST_THREAD_WORD __attribute__((tls_model("initial-exec")))

#endif
