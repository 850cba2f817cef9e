#pragma once

// gv::MetaCallType, which stands beside the calls that it tells apart.
#include <gvtype/metacall.h>  // IWYU pragma: export
