/// What may run out under the library. The test program stands before the system's functions, so that a
/// request of any library in the process can be refused.
#ifndef KIV_TEST_TORTURE_SEAMS_H
#define KIV_TEST_TORTURE_SEAMS_H

#include <string>

/// Memory: blocks and mappings. Descriptors: also those that come with a message.
enum class Resource { Memory, Descriptors, Threads };
inline constexpr Resource kResources[] = {Resource::Memory, Resource::Descriptors, Resource::Threads};

/// From now on requests of all threads are counted, and of `resource` the nth (from 1; 0: none) is refused;
/// with `for_good` all that come after it, too, of whatever resource. The refusal is told in a line "refused"
/// at the descriptor `report`, with who asked, inside out; likewise "terminated" where an exception ends the
/// process.
void begin_to_count(Resource resource, long nth, bool for_good, int report);
void end_to_count();
long counted(Resource resource);

/// While one lives, the requests of its thread are not counted: those of the test itself.
class Uncounted {
  public:
    explicit Uncounted(int change = 1);
    ~Uncounted();
    Uncounted(const Uncounted&) = delete;
    Uncounted& operator=(const Uncounted&) = delete;

  private:
    const int change_;
};

/// Inside of which they are again: what the library is asked.
class Counted : Uncounted {
  public:
    Counted() : Uncounted(-1) {}
};

/// Where the library finds the host's configuration instead of its one place.
extern std::string g_configuration;

#endif
