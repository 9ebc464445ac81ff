// Internal helpers of the gateway shared by module control and the PAM module.
#pragma once

namespace mg::kernel {

// The presence probe: raw kill(6758, 345). -1 means the module is absent.
long presence_probe() noexcept;

inline bool module_present() noexcept { return presence_probe() != -1; }

}  // namespace mg::kernel
