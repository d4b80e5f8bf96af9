#pragma once

// Every public header of the library. The families join here as they are built.
