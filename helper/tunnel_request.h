#pragma once

#include "helper_error.h"
#include "helper_paths.h"

#include <QString>

#include <sys/types.h>
#include <variant>

/// What `runOpenVPN` was sent.
struct TunnelRequest {
    QString config;
    QString clientUp;
    QString clientDown;
};

/// The configuration text that OpenVPN may read for this request of the user `uid`, or why there is none: first the
/// file is judged, then the two scripts. Main thread; blocks for as long as three files take to be read in the user's
/// name, two seconds each at the most.
std::variant<QByteArray, HelperError> acceptedConfiguration(uid_t uid, const TunnelRequest &request,
                                                            const HelperPaths &paths);
