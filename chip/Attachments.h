// The programs at the devices.
#pragma once

#include "chip/Pins.h"

#include <array>
#include <set>
#include <string>

namespace Ebpf {

// Where a program hangs at a device.
struct HookPoint {
   char const * name;
   char const * program;
   int attachType;
};

inline constexpr int tcxIngress = 46;  // newer than the headers of some distributions
inline constexpr int tcxEgress = 47;
inline constexpr int xdpDevice = 37;

inline constexpr std::array< HookPoint, 3 > hookPoints{ { { "entering", "chipEntering", tcxIngress },
                                                          { "leaving", "chipLeaving", tcxEgress },
                                                          { "xdp", "chipForward", xdpDevice } } };

struct Device {
   std::string name;
   U32 index = 0;
   bool withXdp = false;
   friend auto operator<=>( Device const &, Device const & ) = default;
};

// Attaches what is missing and takes off what is too much, in the namespace that the caller is in. Returns how many
// were attached. Throws Refusal; those that were attached stay.
std::size_t attach( Pins const & pins, std::vector< Device > const & devices );

// Puts the pinned programs in place of those that run, without a gap.
void updateAttachments( Pins const & pins );

std::vector< Status::Attachment > attachmentsOf( Pins const & pins );

}  // namespace Ebpf
