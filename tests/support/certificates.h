// A certificate and a list of revoked certificates, in PEM.
#pragma once

namespace support {

// An authority that signed itself, for a hundred years.
constexpr const char* CERTIFICATE =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBlzCCAT2gAwIBAgIUP9yGds/GZiwJqD72TCq5uh60S5wwCgYIKoZIzj0EAwIw\n"
    "IDEQMA4GA1UECgwHRXhhbXBsZTEMMAoGA1UEAwwDdnBuMCAXDTI2MTEyNjE3MTgy\n"
    "OVoYDzIxMjYxMTAyMTcxODI5WjAgMRAwDgYDVQQKDAdFeGFtcGxlMQwwCgYDVQQD\n"
    "DAN2cG4wWTATBgcqhkjOPQIBBggqhkjOPQMBBwNCAATFCWjIbL5vUReouOCaxxXe\n"
    "CWubdpaBqiLDiKqzMG4JphcvsMChvrlM03U2BF1cCZMSBi+A5/oPSk99xn4hfsqD\n"
    "o1MwUTAdBgNVHQ4EFgQUuqIE/tLOV4oL6QGvqGQLASS6q6QwHwYDVR0jBBgwFoAU\n"
    "uqIE/tLOV4oL6QGvqGQLASS6q6QwDwYDVR0TAQH/BAUwAwEB/zAKBggqhkjOPQQD\n"
    "AgNIADBFAiAKVKlhIvOgRbEPj/17UaDTrX3qZuP3CKhagD3GEABupwIhAL7JIP/A\n"
    "MSnvjvoc0n9pZFrO9ZNLdixkQJoelbdX5Z4k\n"
    "-----END CERTIFICATE-----\n";

constexpr const char* REVOCATIONS =
    "-----BEGIN X509 CRL-----\n"
    "MIG4MGECAQEwCgYIKoZIzj0EAwIwIDEQMA4GA1UECgwHRXhhbXBsZTEMMAoGA1UE\n"
    "AwwDdnBuFw0yNjExMjYxNzE4MjlaGA8yMTI2MTEwMjE3MTgyOVqgDjAMMAoGA1Ud\n"
    "FAQDAgEBMAoGCCqGSM49BAMCA0cAMEQCIANFttOKkB0eLIn8Mzx7MNAyMla2SLgk\n"
    "dJb1MQlvCPkjAiB8PalOoUPvmDSP5KqS6c/jvG5aiuQMT/4d2qQu4jhfVQ==\n"
    "-----END X509 CRL-----\n";

}  // namespace support
