#include "flow/ReorderWindow.h"

#include <kest.h>
#include <kest/Configuration.h>
#include <kest/FlowBuffer.h>
#include <kest/Runtime.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest/fdt/TextSearch.h>
#include <kest/fdt/intrusive_ptr.h>

namespace oru {

const char ReorderWindow::kKey[] = "flow.reorder_window";

namespace {

// This thread's ConfigObserver; the slot holds one reference.
ThreadLocalKey g_observer;
SlotRegistration g_observer_reg(g_observer);

const char kDefault[] = "7500";
const uint32_t kMaxWindow = 100000;

// kest_atoi gives 0 both for "0" and for text that is no number; only the
// first is a value.
bool IsNumber(const char *text, int value) {
  return value != 0 || kest_strcmp(text, "0") == 0;
}

ConfigMethod ChangeMethod() {
  return MakeConfigMethod(&ReorderWindow::ConfigObserver::OnConfigChange);
}

} // namespace

void ReorderWindow::ConfigObserver::OnConfigChange(const fdt::string &key,
                                                   const fdt::string & /*old_value*/,
                                                   const fdt::string &new_value) {
  Update(key.c_str(), new_value.c_str());
}

void ReorderWindow::ConfigObserver::Update(const char *key, const char *value) {
  auto found = FindText(m_cells, key);
  if (found == m_cells.end()) {
    return;
  }
  const int number = kest_atoi(value);
  if (IsNumber(value, number)) {
    *found->second = static_cast<uint32_t>(number);
  }
}

bool ReorderWindow::ValidateReorderWindow(const fdt::string & /*key*/,
                                          const fdt::string & /*old_value*/,
                                          const fdt::string &new_value) {
  const int value = kest_atoi(new_value.c_str());
  if (value != 0) {
    // Unsigned, so that a negative number reads as far too large.
    return static_cast<uint32_t>(value) <= kMaxWindow;
  }
  return IsNumber(new_value.c_str(), value);
}

bool ReorderWindow::InitInstance() {
  if (!Configuration::SetItem(kKey, kDefault)) {
    return false;
  }
  return Configuration::RegisterValidator(kKey, ValidateReorderWindow);
}

ReorderWindow::ConfigObserver *ReorderWindow::Observer() {
  return ThreadPointer<ConfigObserver>(g_observer);
}

bool ReorderWindow::InitThread() {
  ConfigObserver *observer = fdt::CreateObject<ConfigObserver>(fdt::OBJECT_LOCAL);
  if (observer == nullptr) {
    return false;
  }
  // Until the end this holds the slot's reference; on failure it frees the
  // observer together with its map.
  fdt::intrusive_ptr<ConfigObserver> hold(observer);

  fdt::string key;
  if (!key.append(kKey) ||
      observer->m_cells.insert(key, &ThreadWord(FlowBuffer::l_reorder_window)) ==
          observer->m_cells.end()) {
    return false;
  }

  Configuration *config = Configuration::Instance();
  if (config == nullptr || !config->Subscribe(kKey, observer, ChangeMethod())) {
    return false;
  }

  ThreadPointer<ConfigObserver>(g_observer) = hold.detach();
  observer->Update(kKey, Configuration::GetItem(kKey).c_str());
  return true;
}

void ReorderWindow::ExitThread() {
  ConfigObserver *observer = ThreadPointer<ConfigObserver>(g_observer);
  if (observer == nullptr) {
    return;
  }
  observer->m_cells.erase(FindText(observer->m_cells, kKey));
  if (Configuration *config = Configuration::Peek()) {
    config->Unsubscribe(kKey, observer, ChangeMethod());
  }
  ThreadPointer<ConfigObserver>(g_observer) = nullptr;
  observer->release();
}

} // namespace oru
