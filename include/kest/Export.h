// Visibility of the plug-in SDK. The library is built with hidden visibility;
// everything a plug-in or host may reach carries KEST_API.
#ifndef KEST_EXPORT_H
#define KEST_EXPORT_H

#define KEST_API __attribute__((visibility("default")))

#endif
