// The frames of an export drawn by the offline compositor: the renderer that
// "renderNative" and `kavlen export` use.
#pragma once

#include "export_renderer.h"

namespace kavlen::exporter {

// Makes a renderer of the scene document (a channel's map, or JSON read with
// native::valueFromJson) at the export's frame size.
ExportRendererFactory nativeRendererFactory();

}  // namespace kavlen::exporter
