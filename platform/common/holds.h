// Who is kept out of the appliance's servers for a time: users at all logins, devices of the
// WireGuard server by key. A device can also have a limit: from a time on it is kept out until the
// limit is lifted.
//
// /var/lib/ormel/holds.json is {"holds":[HOLD...]} with HOLD
// {"kind":"user"|"peer"|"limit","who":BASE64,"name":BASE64,"by":TEXT,
// "since":SECONDS,"until":SECONDS,"boot":ID,"boot_until":SECONDS}. Writers replace the file as a
// whole under a lock, so readers need none. The end is stored twice: in the host's clock, and in
// seconds since the start of the system while "boot" is the one that runs. The later of both
// counts, so that setting the clock ends no hold early. A limit goes by the host's clock alone.
//
// A file that is missing or damaged holds no one. The next change replaces a damaged one and writes
// an event.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace fenro {

struct Hold {
  enum class Kind { User, Peer, Limit };
  Kind kind = Kind::User;
  std::string who{};   // user name, or public key of a device; any bytes
  std::string name{};  // how people call it
  std::string by{};    // who has asked for it
  std::int64_t since = 0;
  std::int64_t until = 0;  // seconds since the epoch
  std::string boot{};      // the run of the system in which it began
  std::int64_t boot_until = 0;
};

[[nodiscard]] const char* word_of(Hold::Kind kind);

class Holds {
 public:
  // The time, as a test may set it.
  struct Moment {
    std::int64_t wall = 0;  // seconds since the epoch
    std::int64_t up = 0;    // seconds since the start of the system
    std::string boot{};
  };
  static constexpr std::int64_t LONGEST = std::int64_t{7} * 86400;  // seconds
  static constexpr std::int64_t NO_END =
      253402300799;  // the end of a limit: the last second of the year 9999

  explicit Holds(std::string file = "/var/lib/ormel/holds.json",
                 std::string lock = "/run/fenro/holds.lock", std::function<Moment()> now = current,
                 std::function<void()> on_damage = report_damage);

  // Those in force.
  [[nodiscard]] std::vector<Hold> list() const;
  // All limits, those that have not begun as well.
  [[nodiscard]] std::vector<Hold> limits() const;
  [[nodiscard]] bool holds(Hold::Kind kind, std::string_view who) const;

  // Begins a hold of 1 to LONGEST seconds, in place of an earlier one. Returns false when the list
  // cannot be written.
  [[nodiscard]] bool add(Hold hold, std::int64_t seconds) const;
  // Keeps a device out from `hold.since` on, in place of an earlier limit. Returns false when the
  // list cannot be written.
  [[nodiscard]] bool limit(Hold hold) const;
  // Ends those that are chosen; `ended` gets them. Returns false when the list cannot be written.
  [[nodiscard]] bool lift(const std::function<bool(const Hold&)>& chosen,
                          std::vector<Hold>& ended) const;
  // Removes those whose time is over; `ended` gets them.
  [[nodiscard]] bool expire(std::vector<Hold>& ended) const;

  [[nodiscard]] static Moment current();
  // Writes an event.
  static void report_damage();

 private:
  [[nodiscard]] std::vector<Hold> stored() const;
  // Puts a hold in the place of one of the same kind and name. Returns false when there is no room
  // or the list cannot be written.
  [[nodiscard]] bool put(Hold hold,
                         const std::function<void(Hold& hold, const Moment& now)>& date) const;
  [[nodiscard]] bool change(
      const std::function<bool(std::vector<Hold>& holds, const Moment& now)>& edit) const;

  std::string file_;
  std::string lock_;
  std::function<Moment()> now_;
  std::function<void()> on_damage_;
};

// Whether a user may not come in at present.
[[nodiscard]] bool is_held(std::string_view user);

}  // namespace fenro
