// A rehearsal of kivctl's changes (apply-apns --dry-run): while one lives,
// this process's modify requests do not reach the modem. Each is answered
// here as the modem accepts one, followed by the Modify indication a modem
// sends after it, so the library takes the change for done; the library's
// view of the table is the rehearsed one until it reads the table again.
#pragma once

namespace kivctl {

class Rehearsal {
  public:
    Rehearsal();
    ~Rehearsal();
    Rehearsal(const Rehearsal&) = delete;
    Rehearsal& operator=(const Rehearsal&) = delete;
};

}  // namespace kivctl
