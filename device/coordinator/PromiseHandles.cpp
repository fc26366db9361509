#include "device/coordinator/PromiseHandles.h"

#include "device/coordinator/CoordinatorError.h"
#include "device/coordinator/CoordinatorHandles.h"

namespace appsync::device {

namespace {

/// What all promise handles have beside their interface.
class PromiseHolder {
  public:
    PromiseHolder(CoordinatorEngine& engine, PromisePtr promise) : _engine(engine), _promise(std::move(promise)) {}
    virtual ~PromiseHolder() = default;
    [[nodiscard]] const PromisePtr& promise() const noexcept { return _promise; }

  protected:
    CoordinatorEngine& _engine;
    const PromisePtr _promise;
};

template <class Interface> class PromiseHandle : public Interface, public PromiseHolder {
  public:
    using PromiseHolder::PromiseHolder;

    bool isComplete() noexcept override { return _promise->isComplete(); }
    void setPercentComplete(double fraction) noexcept override { _engine.setFraction(*_promise, fraction); }
    void setComplete(bool complete) noexcept override {
        if (complete) {
            _engine.complete(*_promise);
        }
    }
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.cancel(*_promise, reason, client).error(), error);
    }
    std::string description() noexcept override {
        return "<promise " + std::to_string(_promise->identifier()) + " " + _promise->name() + ">";
    }
};

class TransferPromiseHandle final : public PromiseHandle<KXPromisedTransferToPath> {
  public:
    using PromiseHandle::PromiseHandle;

    void setTransferPath(const std::optional<FileURL>& path) noexcept override {
        _promise->setPath(path ? std::optional(path->path()) : std::nullopt);
    }
};

class PlaceholderHandle final : public KXPlaceholder {
  public:
    PlaceholderHandle(CoordinatorEngine& engine, PlaceholderPtr placeholder)
        : _engine(engine), _placeholder(std::move(placeholder)) {}

    bool setPlaceholderAttributes_error(const KXPlaceholderAttributes& attributes, ErrorPtr* error) noexcept override {
        return _change(error, [&](PlaceholderFacts& facts) {
            facts.infoPlist = attributes.infoPlist;
            facts.launchProhibited = attributes.launchProhibited;
            facts.bundleVersion = attributes.bundleVersion;
            return Result<void>();
        });
    }
    bool setMetadata_error(const std::optional<TVStoreMetadata>& metadata, ErrorPtr* error) noexcept override {
        return _change(error, [&](PlaceholderFacts& facts) -> Result<void> {
            auto bytes = _engine.metadataBytes(metadata);
            if (!bytes) {
                return bytes.error();
            }
            facts.metadata = std::move(*bytes);
            return {};
        });
    }
    bool setSinfData_error(const Data& sinf, ErrorPtr* error) noexcept override {
        return _change(error, [&](PlaceholderFacts& facts) {
            facts.sinf = sinf;
            return Result<void>();
        });
    }
    bool setIconPromise_error(const KXPromisedTransferToPathPtr& promise, ErrorPtr* error) noexcept override {
        const PromisePtr icon = promiseBehind(promise);
        return _change(error, [&](PlaceholderFacts& facts) -> Result<void> {
            if (!icon || facts.icon || !icon->take(PromiseRole::icon)) {
                return makeCoordinatorError(CoordinatorError::alreadySet,
                                            "the icon promise for " + _placeholder->bundleID +
                                                " is null or in use already, or there is one already");
            }
            facts.icon = icon;
            return {};
        });
    }
    bool setConfigurationCompleteWithError(ErrorPtr* error) noexcept override {
        return _change(error, [](PlaceholderFacts& facts) {
            facts.isConfigured = true;
            return Result<void>();
        });
    }
    bool cancelForReason_client_error(const ErrorPtr& reason, KXClientIdentifier client,
                                      ErrorPtr* error) noexcept override {
        return hasSucceeded(_engine.cancel(_placeholder, reason, client).error(), error);
    }
    std::string description() noexcept override {
        return "<placeholder \"" + _placeholder->bundleName + "\" for " + _placeholder->bundleID + ">";
    }
    [[nodiscard]] const PlaceholderPtr& placeholder() const noexcept { return _placeholder; }

  private:
    bool _change(ErrorPtr* error, const std::function<Result<void>(PlaceholderFacts&)>& change) {
        return hasSucceeded(_engine.changePlaceholder(_placeholder, change).error(), error);
    }

    CoordinatorEngine& _engine;
    const PlaceholderPtr _placeholder;
};

} // namespace

KXPromisedTransferToPathPtr makeTransferPromiseHandle(CoordinatorEngine& engine, const PromisePtr& promise) {
    return std::make_shared<TransferPromiseHandle>(engine, promise);
}

KXPromisedOutOfBandTransferPtr makeOutOfBandPromiseHandle(CoordinatorEngine& engine, const PromisePtr& promise) {
    return std::make_shared<PromiseHandle<KXPromisedOutOfBandTransfer>>(engine, promise);
}

KXPlaceholderPtr makePlaceholderHandle(CoordinatorEngine& engine, const PlaceholderPtr& placeholder) {
    return std::make_shared<PlaceholderHandle>(engine, placeholder);
}

PromisePtr promiseBehind(const std::shared_ptr<KXPromise>& handle) {
    const auto holder = std::dynamic_pointer_cast<PromiseHolder>(handle);
    return holder ? holder->promise() : nullptr;
}

PlaceholderPtr placeholderBehind(const KXPlaceholderPtr& handle) {
    const auto known = std::dynamic_pointer_cast<PlaceholderHandle>(handle);
    return known ? known->placeholder() : nullptr;
}

} // namespace appsync::device
