// What the chip keeps in the kernel's file system of pins, and what it takes to make it.
#pragma once

#include "chip/Descriptor.h"
#include "chip/EbpfChip.h"
#include "chip/bpf/layout.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Ebpf {

// "what: errno's text".
std::string withErrno( std::string const & what );

// The kernel keeps dots in names of pins for itself, and devices have no colon in theirs.
std::string withoutDots( std::string name );
std::string withDots( std::string name );

// The folder of one chip, with a folder each for maps, programs and links below it.
class Pins {
 public:
   explicit Pins( Place const & place );

   std::string const & folder() const { return folder_; }
   std::string pathOf( std::string_view kind, std::string const & name ) const;

   bool exists() const;
   void create() const;     // Throws Refusal.
   void removeAll() const;  // Throws Refusal.

   // Without descriptor when there is no such pin.
   Descriptor open( std::string_view kind, std::string const & name ) const;
   // Throws Refusal.
   Descriptor openMap( std::string const & name ) const;
   void pin( std::string_view kind, std::string const & name, int descriptor ) const;
   // In place of what is pinned under that name.
   void pinAnew( std::string_view kind, std::string const & name, int descriptor ) const;
   void unpin( std::string_view kind, std::string const & name ) const;
   std::vector< std::string > namesOf( std::string_view kind ) const;

   // Absent while the chip is not complete.
   std::optional< ChipMarker > marker() const;
   void markerIs( ChipMarker const & marker ) const;

 private:
   std::string folder_;
};

// What the chip needs before it is made. All throw Refusal.
void requireBpffs( Place const & place );
void requireCapabilities( bool inOtherNamespace );
void requireMemory( U64 bytes );

// Runs the function in the network namespace of that name or path; empty: where the process is. Throws Refusal when
// there is none.
void inNamespace( std::string const & name, std::function< void() > const & function );

}  // namespace Ebpf
