#include "chip/Maps.h"

#include "chip/EbpfChip.h"

#include <bpf/bpf.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

namespace Ebpf {

namespace {

int resultOf( int answer ) { return answer == 0 ? 0 : errno; }

bpf_map_info infoOf( Descriptor const & map ) {
   bpf_map_info info{};
   U32 size = sizeof info;
   if ( bpf_obj_get_info_by_fd( map.number(), &info, &size ) != 0 ) {
      throw Refusal( std::string( "a map of the chip can not be asked for its size: " ) + std::strerror( errno ) );
   }
   return info;
}

// Calls batch( first, count ) until all are done. A batch ends at the first element that fails, and sets `count` to
// those before it; one that fails as a whole leaves it.
template< class Batch > void inBatches( std::size_t all, int * results, Batch && batch ) {
   for ( std::size_t done = 0; done < all; ) {
      auto const wanted = static_cast< U32 >( all - done );
      U32 count = wanted;
      if ( batch( done, count ) == 0 ) {
         return;
      }
      if ( count == wanted ) {
         std::fill( results + done, results + all, errno );
         return;
      }
      done += count;
      results[ done++ ] = errno;
   }
}

}  // namespace

RawHash::RawHash( Descriptor map, std::size_t keySize, std::size_t valueSize )
   : map_( std::move( map ) ), keySize_( keySize ), valueSize_( valueSize ), room_( infoOf( map_ ).max_entries ) {}

int RawHash::find( void const * key, void * value ) const {
   return resultOf( bpf_map_lookup_elem( map_.number(), key, value ) );
}

int RawHash::put( void const * key, void const * value ) const {
   return resultOf( bpf_map_update_elem( map_.number(), key, value, BPF_ANY ) );
}

int RawHash::erase( void const * key ) const { return resultOf( bpf_map_delete_elem( map_.number(), key ) ); }

void RawHash::putAll( void const * keys, void const * values, std::size_t count, int * results ) const {
   auto const * const key = static_cast< std::byte const * >( keys );
   auto const * const value = static_cast< std::byte const * >( values );
   bpf_map_batch_opts options{};
   options.sz = sizeof options;
   inBatches( count, results, [ & ]( std::size_t first, U32 & batch ) {
      return bpf_map_update_batch( map_.number(), key + first * keySize_, value + first * valueSize_, &batch,
                                   &options );
   } );
}

void RawHash::eraseAll( void const * keys, std::size_t count, int * results ) const {
   auto const * const key = static_cast< std::byte const * >( keys );
   bpf_map_batch_opts options{};
   options.sz = sizeof options;
   inBatches( count, results, [ & ]( std::size_t first, U32 & batch ) {
      return bpf_map_delete_batch( map_.number(), key + first * keySize_, &batch, &options );
   } );
}

void RawHash::read( std::vector< std::byte > & keys, std::vector< std::byte > & values, std::size_t & count ) const {
   constexpr U32 leastBatch = 4096;  // a bucket of the kernel's must fit
   count = 0;
   std::vector< std::byte > position( std::max( keySize_, sizeof( U64 ) ) );
   bpf_map_batch_opts options{};
   options.sz = sizeof options;
   bool isFirst = true;
   for ( bool more = true; more; isFirst = false ) {
      U32 batch = std::max( leastBatch, room_ / 8 );
      keys.resize( ( count + batch ) * keySize_ );
      values.resize( ( count + batch ) * valueSize_ );
      auto const answer =
         bpf_map_lookup_batch( map_.number(), isFirst ? nullptr : position.data(), position.data(),
                               keys.data() + count * keySize_, values.data() + count * valueSize_, &batch, &options );
      if ( answer != 0 && errno != ENOENT ) {
         throw Refusal( std::string( "a map of the chip can not be read: " ) + std::strerror( errno ) );
      }
      more = answer == 0;
      count += batch;
   }
}

RawArray::RawArray( Descriptor map, std::size_t elementSize ) : map_( std::move( map ) ) {
   count_ = infoOf( map_ ).max_entries;
   size_ = count_ * elementSize;
   memory_ = mmap( nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, map_.number(), 0 );
   if ( memory_ == MAP_FAILED ) {
      throw Refusal( std::string( "an array of the chip can not be mapped into memory: " ) + std::strerror( errno ) );
   }
}

RawArray::~RawArray() { munmap( memory_, size_ ); }

}  // namespace Ebpf
