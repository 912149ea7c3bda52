// A library with libsystemd's functions that are needed, which prints their calls and fails without a text of an error;
// with QD_STUB_WITHOUT_CLOSE one of them is missing, with QD_STUB_REFUSES the bus cannot be opened.
#include <systemd/sd-bus.h>

#include <cstdio>
#include <cstdlib>

extern "C" int sd_bus_default_system(sd_bus**)
{
    std::puts("(default_system)");
    return -1;
}

extern "C" int sd_bus_open_system(sd_bus** bus)
{
    static char connection;
    std::puts("(open_system)");
#ifdef QD_STUB_REFUSES
    *bus = reinterpret_cast<sd_bus*>(&connection); // not to be taken for an open bus
    return -111;
#else
    *bus = reinterpret_cast<sd_bus*>(&connection);
    return 0;
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
                                          const char* member, sd_bus_error* error, char**)
{
    const bool isZeroed = error->name == nullptr && error->message == nullptr && error->_need_free == 0;
    std::printf("(get_property_string %s %s %s %s %s)\n", destination, path, interface, member,
                isZeroed ? "zeroed" : "not zeroed");
    return -5; // EIO
}

extern "C" int sd_bus_call_method(sd_bus*, const char* destination, const char* path, const char* interface,
                                  const char* member, sd_bus_error* error, sd_bus_message** reply, const char* types,
                                  ...)
{
    static char text[] = "No such thing";
    static char message;
    std::printf("(call_method %s %s %s %s %s)\n", destination, path, interface, member, types);
    error->name = text;
    error->message = text;
    *reply = reinterpret_cast<sd_bus_message*>(&message);
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
