#include "world.h"
namespace sim
{
std::unique_ptr<checker> make_ends_checker(world &where) { return std::make_unique<checker>(where); }
}
