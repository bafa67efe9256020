#include "runtime/ApiSlots.h"

namespace oru {

ThreadLocalKey ApiSlots::tcp_proto;
ThreadLocalKey ApiSlots::udp_proto;
ThreadLocalKey ApiSlots::attr_user;
ThreadLocalKey ApiSlots::thread_id;
ThreadLocalKey ApiSlots::garbage_interval;
ThreadLocalKey ApiSlots::last_garbage;

namespace {
SlotRegistration g_tcp_reg(ApiSlots::tcp_proto);
SlotRegistration g_udp_reg(ApiSlots::udp_proto);
SlotRegistration g_user_reg(ApiSlots::attr_user);
SlotRegistration g_tid_reg(ApiSlots::thread_id);
SlotRegistration g_interval_reg(ApiSlots::garbage_interval);
SlotRegistration g_last_reg(ApiSlots::last_garbage);
} // namespace

} // namespace oru
