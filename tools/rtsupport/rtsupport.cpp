// Sample real-time support library: the signal-group table of a small vehicle, handed to
// the library through `mapping_factory`. Platform teams build their own from their bus
// databases; this one serves the simulator, the demo and the tests.
//
// Conventions of the bus: 8-bit values 0xFE/0xFF and 16/32-bit values with 0xFE/0xFF in
// the top byte are the "error" and "not available" codes, so valid ranges end at 0xFA..
#include "ecu/tavi/rt/definitions.h"

using ecu::tavi::rt::_internal::ALL_BYTES_FF;
using ecu::tavi::rt::_internal::AS_ENUM;
using ecu::tavi::rt::_internal::CAN_STATUS;
using ecu::tavi::rt::_internal::RAW_RANGE;
using ecu::tavi::rt::_internal::signal_def;
using ecu::tavi::rt::_internal::SignalGroupsDefinition;
using ecu::tavi::rt::_internal::WITH_STATUS;

namespace {

constexpr int32_t kBus1 = 0;
constexpr int32_t kBus2 = 1;
constexpr int32_t kNoBus = -1;

// A byte of the maintenance exchange: every value is a code, so every byte is valid and
// round-trips through the scaled value unchanged.
signal_def byte_field(const char* name, int32_t start_bit) {
    return {name, 8, 8, 1.0, 0, 255, 0, start_bit, AS_ENUM};
}

// Temperatures in 1 degC steps from -40 degC.
signal_def temp8(const char* name, int32_t start_bit) {
    return {name, 8, 8, 1.0, 0, 250, -40, start_bit, CAN_STATUS};
}

// Temperatures in 1/32 degC steps from -273 degC.
signal_def temp16(const char* name, int32_t start_bit) {
    return {name, 16, 16, 0.03125, 0, 0xFAFF, -8736, start_bit, CAN_STATUS};
}

signal_def scaled8(const char* name, double factor, int32_t start_bit) {
    return {name, 8, 8, factor, 0, 250, 0, start_bit, CAN_STATUS};
}

// Percent torque, -125 % to 125 %.
signal_def torque(const char* name, int32_t start_bit) {
    return {name, 8, 8, 1.0, 0, 250, -125, start_bit, CAN_STATUS};
}

// Two-bit switch: 0 off, 1 on, 2 error, 3 not available.
signal_def switch2(const char* name, int32_t start_bit) {
    return {name, 8, 2, 1.0, 0, 1, 0, start_bit, CAN_STATUS};
}

SignalGroupsDefinition make_table() {
    SignalGroupsDefinition table;

    // Maintenance computer: request sent to it and its answer.
    table["rt/vekcan/tx/fws_fb"] = {
        0xFB,
        {"fws_fb",
         kBus1,
         false,
         {byte_field("aaf_qbx2mc", 0), byte_field("cid_qbx2mc", 8),
          byte_field("abfragezws_fws_qbx2mc", 16), byte_field("abfragetyp_qbx2mc", 24),
          byte_field("einheitdaten_qbx2mc", 32), byte_field("qualitaetempfohlen_qbx2mc", 40),
          byte_field("qualitaetvorhanden_qbx2mc", 48), byte_field("reihenfolge_qbx2mc", 56),
          byte_field("typmeldung_qbx2mc", 64)}}};
    table["rt/vekcan/rx/fws_27"] = {
        0x27,
        {"fws_27",
         kBus1,
         false,
         {{"wartungsinformation_mc2qbx", 32, 32, 1.0, 0, 0xFFFFFFFF, 0, 0, AS_ENUM},
          byte_field("aaf_mc2qbx", 32),
          byte_field("bwi_mc2qbx", 40),
          byte_field("cid_mc2qbx", 48),
          byte_field("einheitdaten_mc2qbx", 56),
          byte_field("optimierung_mc2qbx", 64),
          byte_field("qualitaetempfohlen_mc2qbx", 72),
          byte_field("qualitaetvorhanden_mc2qbx", 80),
          byte_field("reihenfolge_mc2qbx", 88),
          byte_field("statusdaten_mc2qbx", 96),
          byte_field("weiteretermine_mc2qbx", 104)}}};

    // Cruise control / vehicle speed.
    table["rt/vekcan/rx/ccvs"] = {
        0xFEF1,
        {"ccvs",
         kBus1,
         false,
         {switch2("parking_brake_switch", 2),
          {"wheel_based_vehicle_speed", 16, 16, 1.0 / 256, 0, 0xFAFF, 0, 8, CAN_STATUS},
          switch2("cruise_control_active", 24),
          switch2("brake_switch", 28),
          switch2("clutch_switch", 30)}}};

    // Electronic engine controller 1.
    table["rt/vekcan/rx/eec1"] = {
        0xF004,
        {"eec1",
         kBus1,
         false,
         {{"engine_torque_mode", 8, 4, 1.0, 0, 15, 0, 0, AS_ENUM},
          torque("drivers_demand_percent_torque", 8),
          torque("actual_engine_percent_torque", 16),
          {"engine_speed", 16, 16, 0.125, 0, 0xFAFF, 0, 24, CAN_STATUS},
          {"source_address_of_controlling_device", 8, 8, 1.0, 0, 253, 0, 40, CAN_STATUS},
          torque("engine_demand_percent_torque", 56)}}};

    // Distance: a 20-bit odometer in whole km and a 24-bit trip counter in 0.1 km, whose
    // three bytes carry no status code of their own.
    table["rt/vekcan/rx/odo"] = {0xFEC1,
                                 {"odometer",
                                  kBus1,
                                  false,
                                  {{"odometer", 32, 20, 1.0, 0, 999999, 0, 0, CAN_STATUS},
                                   {"trip_distance", 24, 24, 0.1, 0, 9999999, 0, 32, RAW_RANGE}}}};

    // Tyres of one axle: four pressures and four temperatures, one element per wheel.
    table["rt/vekcan/rx/tire"] = {
        0xFEF4,
        {"tire_condition",
         kBus1,
         false,
         {{"tire_pressure", 8, 32, 4.0, 0, 250, 0, 0, CAN_STATUS},
          {"tire_temperature", 16, 64, 0.03125, 0, 0xFAFF, -8736, 32, CAN_STATUS}}}};

    // Active diagnostic trouble code and lamps.
    table["rt/vekcan/rx/dm1"] = {0xFECA,
                                 {"dm1",
                                  kBus1,
                                  false,
                                  {{"lamp_status", 8, 8, 1.0, 0, 255, 0, 0, WITH_STATUS},
                                   {"active_dtc", 32, 32, 1.0, 0, 0xFFFFFFFF, 0, 16, AS_ENUM},
                                   {"occurrence_count", 8, 7, 1.0, 0, 126, 0, 48, CAN_STATUS}}}};

    // Vehicle identification number: 17 characters, all 0xFF until the vehicle sent it.
    // Retained, so a late subscriber gets it at once.
    table["rt/vekcan/rx/vi"] = {0xFEEC,
                                {"vehicle_identification",
                                 kBus1,
                                 true,
                                 {{"vin", 8, 136, 1.0, 0, 255, 0, 0, ALL_BYTES_FF}}}};

    // Engine temperatures, pressures and levels.
    table["rt/vekcan/rx/engine_conditions"] = {
        0xFEEE,
        {"engine_conditions",
         kBus1,
         false,
         {temp8("engine_coolant_temperature", 0),
          temp8("engine_fuel_temperature", 8),
          temp16("engine_oil_temperature", 16),
          temp16("turbo_oil_temperature", 32),
          temp8("engine_intercooler_temperature", 48),
          scaled8("engine_fuel_delivery_pressure", 4.0, 56),
          scaled8("engine_oil_level", 0.4, 64),
          scaled8("engine_oil_pressure", 4.0, 72),
          {"engine_crankcase_pressure", 16, 16, 1.0 / 128, 0, 0xFAFF, -32000, 80, CAN_STATUS},
          scaled8("engine_coolant_pressure", 2.0, 96),
          scaled8("engine_coolant_level", 0.4, 104),
          scaled8("intake_manifold_pressure", 2.0, 112),
          temp8("intake_manifold_temperature", 120),
          scaled8("air_inlet_pressure", 2.0, 128),
          scaled8("air_filter_differential_pressure", 0.05, 136),
          temp16("exhaust_gas_temperature", 144)}}};

    // Engine hours and revolutions from the fleet-management bus.
    table["rt/fmscan/rx/hours"] = {
        0xFEE5,
        {"engine_hours",
         kBus2,
         false,
         {{"engine_total_hours", 32, 32, 0.05, 0, 0xFAFFFFFF, 0, 0, CAN_STATUS},
          {"engine_total_revolutions", 32, 28, 1000.0, 0, 0x0FAFFFFF, 0, 32, CAN_STATUS}}}};

    // Terminal 15 (ignition) as seen by the unit itself: on no vehicle bus, retained so
    // every application learns the current state when it subscribes.
    table["rt/platform/kl15"] = {
        0x1001,
        {"kl15",
         kNoBus,
         true,
         {switch2("kl15_state", 0), {"wakeup_reason", 8, 8, 1.0, 0, 255, 0, 8, AS_ENUM}}}};
    return table;
}

}  // namespace

extern "C" const SignalGroupsDefinition* mapping_factory() {
    // Built once and never freed: the library keeps pointers into it.
    static const SignalGroupsDefinition* const table = new SignalGroupsDefinition(make_table());
    return table;
}
