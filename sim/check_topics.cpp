#include "world.h"
namespace sim
{
std::unique_ptr<checker> make_topics_checker(world &where) { return std::make_unique<checker>(where); }
}
