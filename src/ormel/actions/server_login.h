// `ormel.sauth`: whether the OpenVPN server may let a client in.
#pragma once

namespace ormel::ovpn {

// `ormel.sauth`: decides on the login that the server daemon describes in the environment variables
// "username", "password" and "untrusted_ip". 0 admits, 1 refuses; so does a status of
// fenro::status_of_factor, which says what is wrong with a second factor. Each refusal is a row of
// the connection log; only a wrong password or code counts towards the block of its user.
int sauth(int argc, char** argv);

}  // namespace ormel::ovpn
