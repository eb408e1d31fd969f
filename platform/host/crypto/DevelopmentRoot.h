#ifndef ONDARO_PLATFORM_HOST_DEVELOPMENTROOT_H
#define ONDARO_PLATFORM_HOST_DEVELOPMENTROOT_H

#include "Certificates.h"

namespace ondaro::host {

// Within the state directory.
inline constexpr char ROOT_DIRECTORY[] = "cdm";
inline constexpr char ROOT_KEY_FILE[] = "development-root-key.pem";
inline constexpr char ROOT_CERTIFICATE_FILE[] = "development-root-cert.pem";

/// The key and certificate that sign device certificates: the same for every process with the same
/// state directory, made by the first that asks. Files that are damaged are left as they are.
/// Throws CertificateError or std::system_error.
Issuer LoadDevelopmentRoot(const std::string& state);

}  // namespace ondaro::host

#endif
