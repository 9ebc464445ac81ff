/* Module start and stop: starting fills every empty kernel policy table from
 * its store and switches enforcement on; stopping first saves the setuid ACL
 * the kernel may have gathered. */
#ifndef MOSSGROVE_MODCTL_H
#define MOSSGROVE_MODCTL_H

#include <mossgrove/defs.h>
#include <mossgrove/kernel.h>

MG_BEGIN_DECLS

/* 0 started, 1 already running, -1 failure (reported through syslog). */
MG_API int module_start(MGModuleInfo *block) MG_NOEXCEPT;
/* 0 stopped, 1 already stopped, -1 failure. */
MG_API int module_stop(void) MG_NOEXCEPT;

MG_END_DECLS

#endif
