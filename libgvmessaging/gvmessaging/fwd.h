#pragma once

// Forward declarations of libgvmessaging, for headers that only name its types.

namespace gv {

class ServiceInfo;
class Session;
class Url;

}  // namespace gv
