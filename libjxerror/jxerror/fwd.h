#pragma once

namespace JX {
class JXError;
}
