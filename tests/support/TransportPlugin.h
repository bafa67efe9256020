// A built-in plug-in that every test instance loads: it names the "TCP" and
// "UDP" protocols that kest_init asks for, so that tests of other subsystems
// can start threads without a decoder. It is added once per process by
// InstallHooks, before any instance opens.
#ifndef KEST_TESTS_TRANSPORTPLUGIN_H
#define KEST_TESTS_TRANSPORTPLUGIN_H

namespace kest_test {

// The plug-in's name, as the status report lists it.
constexpr const char *kTransportPluginName = "kest_test_transport";

// Adds the plug-in to the built-in table; later calls do nothing.
void AddTransportPlugin();

// Whether instances opened from now on get "TCP" and "UDP". On by default;
// InstallHooks turns it on again.
void SetTransportRegistration(bool on);

// Runs `start` in the plug-in's thread start-up, as a plug-in that serves a
// module on each thread does; null, the default and again after InstallHooks,
// runs nothing.
void SetTransportThreadStart(void (*start)());

} // namespace kest_test

#endif
