#include "base/HardwaredClient.h"

#include "base/Tracer.h"

// Interim client that never connects, so the library links before the D-Bus client lands.
namespace Zelmar {

class HardwaredClient::Private
{
public:
    Tools::Signal<void(bool)> connectionChanged;
    Tools::Signal<void(double)> volumeChanged;
};

HardwaredClient& HardwaredClient::get()
{
    static HardwaredClient instance;
    return instance;
}

HardwaredClient::HardwaredClient() : m_private(new Private) {}
HardwaredClient::~HardwaredClient() { delete m_private; }
bool HardwaredClient::isConnected() const { return false; }

Tools::Connection HardwaredClient::onConnectionStateChanged(std::function<void(bool)> handler)
{
    return m_private->connectionChanged.connect(std::move(handler));
}

void HardwaredClient::setHiddenVolumeDelta(double, std::function<void()>, tErrorHandler onError)
{
    onError("hardware daemon not connected");
}

double HardwaredClient::getVolume() const { return 0.0; }

Tools::Connection HardwaredClient::onVolumeChanged(std::function<void(double)> handler)
{
    return m_private->volumeChanged.connect(std::move(handler));
}

HardwaredClient::tErrorHandler HardwaredClient::getErrorLogger(Tools::String const& text)
{
    return [text](Tools::String const& message) { Tools::trace(Tools::Tracer::Error, text, "failed:", message); };
}

} // namespace Zelmar
