#pragma once

// gv::WeakObject, which stands beside the strong handle.
#include <gvtype/object.h>  // IWYU pragma: export
