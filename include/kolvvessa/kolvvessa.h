/*
 * kolvvessa.h - the versioned object store: every public declaration.
 */
#ifndef KOLVVESSA_H
#define KOLVVESSA_H

#include "kolvvessa_export.h"
#include "kolvvessa_error.h"
#include "kolvvessa_common.h"
#include "kolvvessa_object.h"
#include "kolvvessa_version.h"
#include "kolvvessa_backend.h"
#include "kolvvessa_git.h"
#include "kolvvessa_conf.h"
#include "kolvvessa_perm.h"
#include "kolvvessa_ns_hook.h"
#include "kolvvessa_index.h"
#include "kolvvessa_field.h"
#include "kolvvessa_plugin.h"
#include "kolvvessa_check.h"

#endif /* KOLVVESSA_H */
