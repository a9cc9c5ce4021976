// Entry points of the module, declared with C linkage and default visibility.
#pragma once
