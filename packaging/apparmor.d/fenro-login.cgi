# The web login: the one web program that strangers reach. It checks a password, begins or ends a
# session and notes it.
abi <abi/3.0>,

include <tunables/global>

profile fenro-login.cgi /usr/lib/fenro/fenro-login.cgi {
  include <abstractions/authentication>
  include <abstractions/base>
  include <abstractions/nameservice>
  include <abstractions/openssl>

  capability audit_write,

  /usr/lib/fenro/fenro-login.cgi mr,
  /usr/lib/fenro/fenro-session rix,
  /etc/config/Corlin.conf r,
  /etc/config/ r,
  /etc/config/ormel/ r,
  /etc/config/ormel/totp.{conf,users}{,.*} rwl,
  /etc/config/ormel/#* rwl,
  /etc/config/smbpasswd{,.*} rwl,
  /etc/config/#* rwl,
  /run/fenro/{,**} rwkl,
  /var/lib/fenro/ rw,
  /var/lib/fenro/event.db{,-journal,-shm,-wal} rwk,

  include if exists <local/fenro-login.cgi>
}
