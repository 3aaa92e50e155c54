#include "platform/persona/LinuxUserPersona.h"

#include <unistd.h>

namespace tv::platform {

LinuxUserPersona::LinuxUserPersona() : LinuxUserPersona(::geteuid()) {}

} // namespace tv::platform
