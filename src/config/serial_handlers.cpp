#include "config/device_handlers.h"
#include "device/plc/plc_serial.h"

using namespace plc_handlers;

namespace {

struct serial_kind {
    using record = serial_device;
    static constexpr uint32_t comm = DEV_COMM_SERIAL;
    static constexpr const char *module = PLC_SERIAL_MODULE;
    static constexpr const char *same_id = "same serial device id.";
    static constexpr const char *not_exist = "serial device not exist.";
    static constexpr bool announce_before_register = false;
    // The serial delete commits after every node it visits: only the first
    // commit ends the transaction, the others report that none is active.
    static constexpr bool commit_per_node = true;

    static int db_add(const record *r) { return on_add_serial_device(r); }
    static int db_update(const record *r) { return on_update_serial_device(r); }
    static int db_delete(uint32_t id) { return on_delete_serial_device(id); }
    static int db_table_add(const record *r) { return add_serial_dev_to_serial_dev_table(r); }
    static int db_table_delete(uint32_t id) { return delete_serial_dev_from_serial_dev_table(id); }
    static int db_table_clean() { return clean_serial_dev_table(); }
    static void copy_settings(record *dev, const record *req)
    {
        dev->station_num = req->station_num;
        dev->serial_type = req->serial_type;
        dev->serial_number = req->serial_number;
        dev->baudrate = req->baudrate;
        dev->data_bit = req->data_bit;
        dev->stop_bit = req->stop_bit;
        dev->parity_bit = req->parity_bit;
    }
};

// The record a request describes.
std::unique_ptr<serial_device> from_request(guint dev_id, guint dev_comm, guint dev_mfg, guint dev_type,
                            const gchar *dev_name, guint station, guint serial_type,
                            guint serial_number, guint baudrate, guint data_bit, guint stop_bit,
                            guint parity_bit)
{
    return owned(serial_device_create(dev_id, dev_name, dev_comm, dev_mfg, dev_type, serial_type,
                                      serial_number, station, baudrate, data_bit, stop_bit,
                                      parity_bit));
}

} // namespace

gboolean on_handle_serial_device_add(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                     guint dev_id, guint dev_comm, guint dev_mfg, guint dev_type,
                                     const gchar *dev_name, guint dev_station_num,
                                     guint dev_serial_type, guint dev_serial_number,
                                     guint dev_serial_baudrate, guint dev_serial_databit,
                                     guint dev_serial_stopbit, guint dev_serial_paritybit)
{
    return serve(
        __func__, 2,
        [&] {
            return device_add<serial_kind>("on_handle_serial_device_add", dev_id, [&] {
                return from_request(dev_id, dev_comm, dev_mfg, dev_type, dev_name,
                                    dev_station_num, dev_serial_type, dev_serial_number,
                                    dev_serial_baudrate, dev_serial_databit, dev_serial_stopbit,
                                    dev_serial_paritybit);
            });
        },
        [&](int r) { gateway_device_service_complete_serial_device_add(sk, inv, r); });
}

gboolean on_handle_serial_device_mdf(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                     guint dev_id, guint dev_comm, guint dev_mfg, guint dev_type,
                                     const gchar *dev_name, guint dev_station_num,
                                     guint dev_serial_type, guint dev_serial_number,
                                     guint dev_serial_baudrate, guint dev_serial_databit,
                                     guint dev_serial_stopbit, guint dev_serial_paritybit)
{
    return serve(
        __func__, 2,
        [&] {
            auto req = from_request(dev_id, dev_comm, dev_mfg, dev_type, dev_name, dev_station_num,
                                    dev_serial_type, dev_serial_number, dev_serial_baudrate,
                                    dev_serial_databit, dev_serial_stopbit, dev_serial_paritybit);
            return req == nullptr ? 2
                                  : device_mdf<serial_kind>("on_handle_serial_device_mdf",
                                                            std::move(req));
        },
        [&](int r) { gateway_device_service_complete_serial_device_mdf(sk, inv, r); });
}

gboolean on_handle_serial_device_del(GatewayDeviceService *sk, GDBusMethodInvocation *inv,
                                     guint dev_id, guint /*dev_comm*/, guint /*dev_mfg*/,
                                     guint /*dev_type*/, const gchar * /*dev_name*/)
{
    return serve(
        __func__, -1, [&] { return device_del<serial_kind>("on_handle_serial_device_del", dev_id); },
        [&](int r) { gateway_device_service_complete_serial_device_del(sk, inv, r); });
}

gboolean on_handle_serial_device_sync_multi_1(GatewayDeviceService *sk,
                                              GDBusMethodInvocation *inv, GVariant *multi)
{
    give_back_message_memory();
    return serve(
        __func__, 3,
        [&] {
            std::vector<std::unique_ptr<serial_device>> items;
            GVariantIter it;
            g_variant_iter_init(&it, multi);
            guint id, comm, mfg, type, station, stype, number, baud, data, stop, parity;
            const gchar *name;
            while (g_variant_iter_next(&it, "(uuuu&suuuuuuu)", &id, &comm, &mfg, &type, &name,
                                       &station, &stype, &number, &baud, &data, &stop, &parity)) {
                auto rec = from_request(id, comm, mfg, type, name, station, stype, number, baud,
                                        data, stop, parity);
                if (rec != nullptr)
                    items.push_back(std::move(rec));
            }
            const bool all_built = items.size() == g_variant_n_children(multi);
            const int r = device_sync<serial_kind>(std::move(items));
            return r == 0 && !all_built ? 3 : r;
        },
        [&](int r) { gateway_device_service_complete_serial_device_sync_multi(sk, inv, r); });
}
