#pragma once

// All public headers of the library, in the order of docs/architecture.md.
