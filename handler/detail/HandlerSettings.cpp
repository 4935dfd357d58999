#include "handler/detail/HandlerSettings.h"

#include <utility>

namespace CTolvane::detail {
namespace {

// A plain pointer, so that the thread-local needs no constructor or destructor of its own.
thread_local HandlerSettings* t_settings = nullptr;

}  // namespace

HandlerSettings* ThreadHandlerSettings() { return t_settings; }

ScopedHandlerSettings::ScopedHandlerSettings(HandlerSettings settings)
    : m_settings(std::move(settings)), m_outer(t_settings) {
  t_settings = &m_settings;
}

ScopedHandlerSettings::~ScopedHandlerSettings() { t_settings = m_outer; }

}  // namespace CTolvane::detail
