#pragma once
// Of the operating system libstdc++ needs to know nothing here: that of the machine asks which glibc there is.
