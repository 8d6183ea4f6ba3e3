#pragma once

namespace instructions {

/// The registry knows one plugin, listed and initialised, that serves kUrls urls. Nothing listens.
void SetUpRegistry();

/// Moreover that plugin is connected, and the host answers every request with its own body.
void SetUpFrame();

}  // namespace instructions
