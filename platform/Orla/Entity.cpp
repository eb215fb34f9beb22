#include <Orla/Entity.h>

namespace [[gnu::visibility( "default" )]] Orla {

Entity::~Entity() = default;

void Entity::lastUserGone() const { delete this; }

Entity const * Entity::publisher() const { return this; }

void Entity::vexaDoZombieReactors( bool zombie ) { zombie_ = zombie; }

}  // namespace Orla
