#pragma once

#include <optional>
#include <string>

#include "velmora/Export.h"

namespace velmora {

// The support account the library works for, as the host gave it to initialize.
class VELMORA_EXPORT AccountDetails {
  public:
    virtual ~AccountDetails() = default;
    virtual const std::string& clientId() const = 0;
    virtual const std::string& accountUrl() const = 0;
    virtual const std::string& applicationId() const = 0;

    // The account's key: base64 of the account URL immediately followed by the application id. The client id
    // takes no part, so details differing only in it are the same account. Empty when the joined text is not
    // valid UTF-8 and so cannot be encoded as text.
    std::optional<std::string> base64() const;
};

class VELMORA_EXPORT ApplicationConfiguration : public AccountDetails {
  public:
    ApplicationConfiguration(std::string applicationId, std::string clientId, std::string accountUrl)
        : applicationId_(std::move(applicationId)),
          clientId_(std::move(clientId)),
          accountUrl_(std::move(accountUrl)) {}

    const std::string& clientId() const override { return clientId_; }
    const std::string& accountUrl() const override { return accountUrl_; }
    const std::string& applicationId() const override { return applicationId_; }

  private:
    std::string applicationId_;
    std::string clientId_;
    std::string accountUrl_;
};

}  // namespace velmora
