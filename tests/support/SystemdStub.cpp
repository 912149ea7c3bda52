// A library with libsystemd's functions that are needed, which prints their calls.
//
//   QD_STUB_FAILS          the bus can be opened; reading a property fails without a text of an error, a method with
//   one QD_STUB_SUCCEEDS       all calls succeed, with 1; every property is "loaded" QD_STUB_REFUSES        the bus
//   cannot be opened QD_STUB_WITHOUT_CLOSE  one of the functions is missing
#include <systemd/sd-bus.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace
{

#ifdef QD_STUB_SUCCEEDS
constexpr bool kSucceeds = true;
#else
constexpr bool kSucceeds = false;
#endif

const char* Describe(const sd_bus_error* error)
{
    const bool isZeroed = error->name == nullptr && error->message == nullptr && error->_need_free == 0;
    return isZeroed ? "zeroed" : "not zeroed";
}

} // namespace

extern "C" int sd_bus_default_system(sd_bus**)
{
    std::puts("(default_system)");
    return -1;
}

extern "C" int sd_bus_open_system(sd_bus** bus)
{
    static char connection;
    std::puts("(open_system)");
    *bus = reinterpret_cast<sd_bus*>(&connection);
#ifdef QD_STUB_REFUSES
    return -111; // what *bus holds is not to be taken for an open bus
#else
    return kSucceeds ? 1 : 0;
#endif
}

extern "C" sd_bus* sd_bus_flush_close_unref(sd_bus*)
{
    std::puts("(flush_close_unref)");
    return nullptr;
}

#ifndef QD_STUB_WITHOUT_CLOSE
extern "C" void sd_bus_close(sd_bus*)
{
    std::puts("(close)");
}
#endif

extern "C" sd_bus* sd_bus_unref(sd_bus*)
{
    std::puts("(unref)");
    return nullptr;
}

extern "C" int sd_bus_get_property_string(sd_bus*, const char* destination, const char* path, const char* interface,
                                          const char* member, sd_bus_error* error, char** value)
{
    std::printf("(get_property_string %s %s %s %s %s)\n", destination, path, interface, member, Describe(error));
    if (!kSucceeds)
        return -5; // EIO
    *value = ::strdup("loaded");
    return 1;
}

extern "C" int sd_bus_call_method(sd_bus*, const char* destination, const char* path, const char* interface,
                                  const char* member, sd_bus_error* error, sd_bus_message** reply, const char* types,
                                  ...)
{
    static char text[] = "No such thing";
    static char message;
    std::printf("(call_method %s %s %s %s %s %s", destination, path, interface, member, Describe(error), types);
    va_list arguments;
    va_start(arguments, types);
    for (const char* type = types; *type == 's'; ++type)
        std::printf(" %s", va_arg(arguments, const char*));
    va_end(arguments);
    std::puts(")");
    *reply = reinterpret_cast<sd_bus_message*>(&message);
    if (kSucceeds)
        return 1;
    error->name = text;
    error->message = text;
    return -2;
}

extern "C" void sd_bus_error_free(sd_bus_error* error)
{
    if (error->message != nullptr)
        const_cast<char*>(error->message)[0] = '\0'; // who reads it now, sees no text
    std::puts("(error_free)");
}

extern "C" sd_bus_message* sd_bus_message_unref(sd_bus_message* message)
{
    std::printf("(message_unref %s)\n", message != nullptr ? "reply" : "null");
    return nullptr;
}
