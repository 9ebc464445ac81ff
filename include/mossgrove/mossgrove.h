/* The whole Mossgrove management library. */
#ifndef MOSSGROVE_H
#define MOSSGROVE_H
#include <mossgrove/common.h>
#include <mossgrove/kernel.h>
#include <mossgrove/stores.h>
#include <mossgrove/labels.h>
#include <mossgrove/sopass.h>
#include <mossgrove/seclog.h>
#include <mossgrove/config.h>
#include <mossgrove/rules.h>
#include <mossgrove/modctl.h>
#endif
