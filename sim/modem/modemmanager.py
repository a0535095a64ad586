'''ModemManager mock template for the simulated router and the LTE manager's tests

Serves the part of org.freedesktop.ModemManager1 that failover-lte uses, the way ModemManager's
published D-Bus API describes it, with the exact property and argument types, so that libmm-glib
accepts it: the manager object /org/freedesktop/ModemManager1 (Manager interface and
ObjectManager, which lists the modems), modems (Modem.Enable, Modem.Simple's Connect and
Disconnect, Modem.Modem3gpp), their SIMs and bearers (properties only).

    /usr/bin/python3 -m dbusmock --system --template sim/modem/modemmanager.py

It starts with no modem. The control interface org.freedesktop.ModemManager1.Mock on
/org/freedesktop/ModemManager1 drives it:

    AddModem(b has_sim) -> o      a modem, Disabled; without a SIM it is Failed ("sim-missing")
    RemoveModem(o)                the modem goes (InterfacesRemoved), its bearers and SIM too
    SetConnectResult(s how, a{sv} details)
        "dhcp"    Simple.Connect connects a bearer whose interface is details["interface"]
                  (default "rm_usb0") with the IPv4 method DHCP
        "static"  the same with the method static: details "address", "prefix", "gateway",
                  "dns1", "dns2", "mtu"
        "refuse"  Simple.Connect fails with the D-Bus error details["error"] and the message
                  details["message"]
        "never"   Simple.Connect does not answer (until a disconnect cancels it)
        details["delay"] (seconds, "dhcp" and "static"): how long the connect takes
    SetModemState(o, i)           puts the modem in that MMModemState, with StateChanged
'''

import dbus
import dbus.service
from gi.repository import GLib

from dbusmock import mockobject

BUS_NAME = 'org.freedesktop.ModemManager1'
MAIN_OBJ = '/org/freedesktop/ModemManager1'
MAIN_IFACE = 'org.freedesktop.ModemManager1'
SYSTEM_BUS = True
IS_OBJECT_MANAGER = True

CONTROL_IFACE = 'org.freedesktop.ModemManager1.Mock'
MODEM_IFACE = 'org.freedesktop.ModemManager1.Modem'
SIMPLE_IFACE = 'org.freedesktop.ModemManager1.Modem.Simple'
GPP_IFACE = 'org.freedesktop.ModemManager1.Modem.Modem3gpp'
BEARER_IFACE = 'org.freedesktop.ModemManager1.Bearer'
SIM_IFACE = 'org.freedesktop.ModemManager1.Sim'
MODEM_PREFIX = MAIN_OBJ + '/Modem/'
ERROR_PREFIX = 'org.freedesktop.ModemManager1.Error.'

# MMModemState
FAILED, UNKNOWN, INITIALIZING, LOCKED, DISABLED, DISABLING, ENABLING, ENABLED, SEARCHING, \
    REGISTERED, DISCONNECTING, CONNECTING, CONNECTED = range(-1, 12)
REASON_USER_REQUESTED = 1       # MMModemStateChangeReason
FAILED_REASON_UNKNOWN = 1       # MMModemStateFailedReason
FAILED_REASON_SIM_MISSING = 2
LOCK_UNKNOWN, LOCK_NONE, LOCK_SIM_PIN = 0, 1, 2
POWER_LOW, POWER_ON = 2, 3
ACCESS_LTE = 1 << 14
REG_IDLE, REG_HOME = 0, 1
IP_METHOD_UNKNOWN, IP_METHOD_STATIC, IP_METHOD_DHCP = 0, 2, 3
CAPABILITY_LTE = 1 << 3
MODE_4G = 1 << 3
PORT_NET, PORT_AT = 2, 3

OPERATOR_CODE = '00101'
OPERATOR_NAME = 'Test Network'
SIGNAL_PERCENT = 75


def _u(v):
    return dbus.UInt32(v)


def _dict(d=None):
    return dbus.Dictionary(d or {}, signature='sv')


def _paths(paths):
    return dbus.Array([dbus.ObjectPath(p) for p in paths], signature='o')


def _error(name, message):
    return dbus.exceptions.DBusException(message, name=ERROR_PREFIX + name)


def _set(obj, iface, changes):
    '''Changes properties of one interface and says so (PropertiesChanged).'''
    props = obj.props[iface]
    changed = {k: v for k, v in changes.items() if k not in props or props[k] != v}
    if not changed:
        return
    props.update(changed)
    obj.EmitSignal('org.freedesktop.DBus.Properties', 'PropertiesChanged', 'sa{sv}as',
                   [iface, _dict(changed), dbus.Array([], signature='s')])


def _registration(registered):
    '''The properties that follow the network registration.'''
    return ({
        'AccessTechnologies': _u(ACCESS_LTE if registered else 0),
        'SignalQuality': dbus.Struct((_u(SIGNAL_PERCENT if registered else 0),
                                      dbus.Boolean(registered)), signature='ub'),
    }, {
        'RegistrationState': _u(REG_HOME if registered else REG_IDLE),
        'OperatorCode': dbus.String(OPERATOR_CODE if registered else ''),
        'OperatorName': dbus.String(OPERATOR_NAME if registered else ''),
    })


def _set_state(modem, new):
    '''Moves a modem to an MMModemState: the property, StateChanged and what goes with it.'''
    old = int(modem.props[MODEM_IFACE]['State'])
    if old == new:
        return
    registered = new >= REGISTERED
    modem_props, gpp_props = _registration(registered)
    modem_props['State'] = dbus.Int32(new)
    modem_props['PowerState'] = _u(POWER_ON if new >= ENABLING else POWER_LOW)
    if new == LOCKED:
        modem_props['UnlockRequired'] = _u(LOCK_SIM_PIN)
    elif modem.props[MODEM_IFACE]['Sim'] != '/':
        modem_props['UnlockRequired'] = _u(LOCK_NONE)
    if new == FAILED and modem.props[MODEM_IFACE]['StateFailedReason'] == 0:
        modem_props['StateFailedReason'] = _u(FAILED_REASON_UNKNOWN)
    elif new != FAILED:
        modem_props['StateFailedReason'] = _u(0)
    _set(modem, MODEM_IFACE, modem_props)
    _set(modem, GPP_IFACE, gpp_props)
    modem.EmitSignal(MODEM_IFACE, 'StateChanged', 'iiu',
                     [dbus.Int32(old), dbus.Int32(new), _u(REASON_USER_REQUESTED)])
    if new < CONNECTED:
        for path in modem.props[MODEM_IFACE]['Bearers']:
            _bearer_down(mockobject.objects[path])


def _state(modem):
    return int(modem.props[MODEM_IFACE]['State'])


def _enable(modem):
    '''Enable as ModemManager does it: Enabling, Enabled, then the network registration.'''
    state = _state(modem)
    if state == FAILED:
        raise _error('Core.WrongState', 'modem in failed state')
    if state == LOCKED:
        raise _error('MobileEquipment.SimPin', 'SIM PIN required')
    if state < ENABLED:
        _set_state(modem, ENABLING)
        _set_state(modem, ENABLED)
    if _state(modem) < REGISTERED:
        _set_state(modem, SEARCHING)
        _set_state(modem, REGISTERED)


def _disable(modem):
    if _state(modem) <= DISABLED:
        return
    _set_state(modem, DISABLING)
    _set_state(modem, DISABLED)


def _no_ip():
    # An unconfigured family still names its method (unknown): libmm-glib wants one.
    return _dict({'method': _u(IP_METHOD_UNKNOWN)})


def _bearer_up(bearer, result):
    how, details = result
    ip4 = {'method': _u(IP_METHOD_DHCP)}
    if how == 'static':
        ip4 = {
            'method': _u(IP_METHOD_STATIC),
            'address': dbus.String(details.get('address', '10.64.0.2')),
            'prefix': _u(details.get('prefix', 24)),
            'gateway': dbus.String(details.get('gateway', '10.64.0.1')),
            'dns1': dbus.String(details.get('dns1', '10.64.0.1')),
        }
        if 'dns2' in details:
            ip4['dns2'] = dbus.String(details['dns2'])
        if 'mtu' in details:
            ip4['mtu'] = _u(details['mtu'])
    _set(bearer, BEARER_IFACE, {
        'Interface': dbus.String(details.get('interface', 'rm_usb0')),
        'Ip4Config': _dict(ip4),
        'Connected': dbus.Boolean(True),
    })


def _bearer_down(bearer):
    _set(bearer, BEARER_IFACE, {
        'Connected': dbus.Boolean(False),
        'Interface': dbus.String(''),
        'Ip4Config': _no_ip(),
        'Ip6Config': _no_ip(),
    })


def _bearer_properties(properties):
    '''The settings a bearer keeps: those of a connect, without the SIM PIN.'''
    return _dict({k: v for k, v in properties.items() if k not in ('pin', 'operator-id')})


def _create_bearer(modem, properties):
    main = mockobject.objects[MAIN_OBJ]
    path = f'{MAIN_OBJ}/Bearer/{main.mm_next["Bearer"]}'
    main.mm_next['Bearer'] += 1
    main.AddObject(path, BEARER_IFACE, _dict({
        'Interface': dbus.String(''),
        'Connected': dbus.Boolean(False),
        'ConnectionError': dbus.Struct(('', ''), signature='ss'),
        'Suspended': dbus.Boolean(False),
        'Multiplexed': dbus.Boolean(False),
        'Ip4Config': _no_ip(),
        'Ip6Config': _no_ip(),
        'Stats': _dict(),
        'ReloadStatsSupported': dbus.Boolean(False),
        'IpTimeout': _u(20),
        'BearerType': _u(1),    # default
        'ProfileId': dbus.Int32(-1),
        'Properties': _bearer_properties(properties),
    }), [])
    bearers = list(modem.props[MODEM_IFACE]['Bearers']) + [path]
    _set(modem, MODEM_IFACE, {'Bearers': _paths(bearers)})
    return path


def _pending(modem):
    if not hasattr(modem, 'mm_pending'):
        modem.mm_pending = []
    return modem.mm_pending


def _cancel_pending(modem):
    '''A connect still waiting fails, as ModemManager's does when a disconnect aborts it.'''
    pending = _pending(modem)
    while pending:
        _, error_cb, timer = pending.pop()
        if timer:
            GLib.source_remove(timer)
        error_cb(_error('Core.Cancelled', 'Connection attempt cancelled'))


def _connect(modem, properties, reply_cb, error_cb):
    main = mockobject.objects[MAIN_OBJ]
    how, details = main.mm_result
    _enable(modem)
    connected = [p for p in modem.props[MODEM_IFACE]['Bearers']
                 if mockobject.objects[p].props[BEARER_IFACE]['Connected']]
    if connected:
        reply_cb(dbus.ObjectPath(connected[0]))
        return
    _set_state(modem, CONNECTING)
    if how == 'refuse':
        _set_state(modem, REGISTERED)
        raise dbus.exceptions.DBusException(
            str(details.get('message', 'Service option not subscribed')),
            name=str(details.get('error', ERROR_PREFIX +
                                 'MobileEquipment.GprsServiceOptionNotSubscribed')))

    bearers = modem.props[MODEM_IFACE]['Bearers']
    path = bearers[0] if bearers else _create_bearer(modem, properties)
    bearer = mockobject.objects[path]
    _set(bearer, BEARER_IFACE, {'Properties': _bearer_properties(properties)})

    def finish():
        entry = next((e for e in _pending(modem) if e[1] is error_cb), None)
        if entry is None:
            return False
        _pending(modem).remove(entry)
        _bearer_up(bearer, (how, details))
        _set_state(modem, CONNECTED)
        reply_cb(dbus.ObjectPath(path))
        return False

    if how == 'never':
        _pending(modem).append((reply_cb, error_cb, None))
        return
    delay = float(details.get('delay', 0))
    timer = GLib.timeout_add(int(delay * 1000), finish) if delay > 0 else None
    _pending(modem).append((reply_cb, error_cb, timer))
    if timer is None:
        finish()


def _disconnect(modem, bearer_path):
    _cancel_pending(modem)
    for path in modem.props[MODEM_IFACE]['Bearers']:
        if bearer_path in ('/', path):
            _bearer_down(mockobject.objects[path])
    if _state(modem) >= CONNECTING and not any(
            mockobject.objects[p].props[BEARER_IFACE]['Connected']
            for p in modem.props[MODEM_IFACE]['Bearers']):
        _set_state(modem, DISCONNECTING)
        _set_state(modem, REGISTERED)


# The methods of the modems, bearers and SIMs. They live in classes, not in the module, so that
# dbusmock does not put them on the manager object as well; _export() puts them on one object.
class _Modem:
    @dbus.service.method(MODEM_IFACE, in_signature='b', out_signature='')
    def Enable(self, enable):
        if enable:
            _enable(self)
        else:
            _disconnect(self, '/')
            _disable(self)

    # Sent by _set_state(); declared for the modem's introspection data.
    @dbus.service.signal(MODEM_IFACE, signature='iiu')
    def StateChanged(self, old, new, reason):
        pass


class _Simple:
    @dbus.service.method(SIMPLE_IFACE, in_signature='a{sv}', out_signature='o',
                         async_callbacks=('reply_cb', 'error_cb'))
    def Connect(self, properties, reply_cb, error_cb):
        _connect(self, properties, reply_cb, error_cb)

    @dbus.service.method(SIMPLE_IFACE, in_signature='o', out_signature='')
    def Disconnect(self, bearer):
        if bearer != '/' and bearer not in self.props[MODEM_IFACE]['Bearers']:
            raise _error('Core.NotFound', f'No bearer found with path {bearer}')
        _disconnect(self, bearer)


def _export(obj, iface, methods):
    '''Puts the D-Bus methods of a class on one mock object, under their interface.'''
    obj.props.setdefault(iface, _dict())
    for name, fn in vars(methods).items():
        if getattr(fn, '_dbus_is_method', False):
            signature = (fn._dbus_in_signature, fn._dbus_out_signature)
        elif getattr(fn, '_dbus_is_signal', False):
            signature = (fn._dbus_signature, '')
        else:
            continue
        obj.methods.setdefault(iface, {})[name] = (*signature, '', fn)


def _modem_props(index, sim_path):
    has_sim = sim_path != '/'
    return _dict({
        'Sim': dbus.ObjectPath(sim_path),
        'SimSlots': dbus.Array([], signature='o'),
        'PrimarySimSlot': _u(0),
        'Bearers': dbus.Array([], signature='o'),
        'SupportedCapabilities': dbus.Array([_u(CAPABILITY_LTE)], signature='u'),
        'CurrentCapabilities': _u(CAPABILITY_LTE),
        'MaxBearers': _u(1),
        'MaxActiveBearers': _u(1),
        'MaxActiveMultiplexedBearers': _u(0),
        'Manufacturer': dbus.String('Failover Test'),
        'Model': dbus.String('LTE USB modem'),
        'Revision': dbus.String('1.0'),
        'CarrierConfiguration': dbus.String(''),
        'CarrierConfigurationRevision': dbus.String(''),
        'HardwareRevision': dbus.String('1'),
        'DeviceIdentifier': dbus.String(f'{index:040x}'),
        'Device': dbus.String(f'/sys/devices/platform/usb/{index}'),
        'Drivers': dbus.Array(['cdc_ether', 'option'], signature='s'),
        'Plugin': dbus.String('generic'),
        'PrimaryPort': dbus.String('ttyUSB0'),
        'Ports': dbus.Array([dbus.Struct(('ttyUSB0', _u(PORT_AT)), signature='su'),
                             dbus.Struct(('rm_usb0', _u(PORT_NET)), signature='su')],
                            signature='(su)'),
        'EquipmentIdentifier': dbus.String(f'3569380000{index:05d}'),
        'UnlockRequired': _u(LOCK_NONE if has_sim else LOCK_UNKNOWN),
        'UnlockRetries': dbus.Dictionary({}, signature='uu'),
        'State': dbus.Int32(DISABLED if has_sim else FAILED),
        'StateFailedReason': _u(0 if has_sim else FAILED_REASON_SIM_MISSING),
        'AccessTechnologies': _u(0),
        'SignalQuality': dbus.Struct((_u(0), dbus.Boolean(False)), signature='ub'),
        'OwnNumbers': dbus.Array([], signature='s'),
        'PowerState': _u(POWER_LOW),
        'SupportedModes': dbus.Array([dbus.Struct((_u(MODE_4G), _u(MODE_4G)), signature='uu')],
                                     signature='(uu)'),
        'CurrentModes': dbus.Struct((_u(MODE_4G), _u(MODE_4G)), signature='uu'),
        'SupportedBands': dbus.Array([], signature='u'),
        'CurrentBands': dbus.Array([], signature='u'),
        'SupportedIpFamilies': _u(7),   # IPv4, IPv6, IPv4v6
    })


def _gpp_props(index):
    return _dict({
        'Imei': dbus.String(f'3569380000{index:05d}'),
        'RegistrationState': _u(REG_IDLE),
        'OperatorCode': dbus.String(''),
        'OperatorName': dbus.String(''),
        'EnabledFacilityLocks': _u(0),
        'SubscriptionState': _u(0),
        'EpsUeModeOperation': _u(0),
        'Pco': dbus.Array([], signature='(ubay)'),
        'InitialEpsBearer': dbus.ObjectPath('/'),
        'InitialEpsBearerSettings': _dict(),
        'PacketServiceState': _u(0),
        'Nr5gRegistrationSettings': _dict(),
    })


def _sim_props(index):
    return _dict({
        'Active': dbus.Boolean(True),
        'SimIdentifier': dbus.String(f'8949000000000000{index:04d}'),
        'Imsi': dbus.String(f'00101000000{index:04d}'),
        'Eid': dbus.String(''),
        'OperatorIdentifier': dbus.String(OPERATOR_CODE),
        'OperatorName': dbus.String(OPERATOR_NAME),
        'EmergencyNumbers': dbus.Array([], signature='s'),
        'PreferredNetworks': dbus.Array([], signature='(su)'),
        'Gid1': dbus.ByteArray(b''),
        'Gid2': dbus.ByteArray(b''),
        'SimType': _u(1),       # physical
        'EsimStatus': _u(0),
        'Removability': _u(1),  # removable
    })


def _managed_objects(self):
    '''ModemManager's ObjectManager lists the modems only; bearers and SIMs are plain objects.'''
    return dbus.Dictionary({dbus.ObjectPath(p): mockobject.objects[p].props
                            for p in mockobject.objects if p.startswith(MODEM_PREFIX)},
                           signature='oa{sa{sv}}')


def load(mock, parameters):
    mock.mm_next = {'Modem': 0, 'Bearer': 0, 'SIM': 0}
    mock.mm_result = ('dhcp', {})
    mock.AddProperties(MAIN_IFACE, _dict({'Version': dbus.String('1.20.4')}))
    mock.AddMethod(mockobject.OBJECT_MANAGER_IFACE, 'GetManagedObjects', '', 'a{oa{sa{sv}}}',
                   _managed_objects)
    mock.object_manager = mock


@dbus.service.method(CONTROL_IFACE, in_signature='b', out_signature='o')
def AddModem(self, has_sim):
    index = self.mm_next['Modem']
    self.mm_next['Modem'] += 1
    sim_path = '/'
    if has_sim:
        sim_path = f'{MAIN_OBJ}/SIM/{self.mm_next["SIM"]}'
        self.mm_next['SIM'] += 1
        self.AddObject(sim_path, SIM_IFACE, _sim_props(index), [])

    path = f'{MODEM_PREFIX}{index}'
    self.AddObject(path, MODEM_IFACE, _modem_props(index, sim_path), [])
    modem = mockobject.objects[path]
    modem.props[GPP_IFACE] = _gpp_props(index)
    _export(modem, MODEM_IFACE, _Modem)
    _export(modem, SIMPLE_IFACE, _Simple)
    self.EmitSignal(mockobject.OBJECT_MANAGER_IFACE, 'InterfacesAdded', 'oa{sa{sv}}',
                    [dbus.ObjectPath(path), modem.props])
    return dbus.ObjectPath(path)


def _modem(path):
    if not str(path).startswith(MODEM_PREFIX) or path not in mockobject.objects:
        raise dbus.exceptions.DBusException(f'no modem {path}',
                                            name=CONTROL_IFACE + '.NoSuchModem')
    return mockobject.objects[path]


@dbus.service.method(CONTROL_IFACE, in_signature='o', out_signature='')
def RemoveModem(self, path):
    modem = _modem(path)
    _cancel_pending(modem)
    for bearer in modem.props[MODEM_IFACE]['Bearers']:
        self.RemoveObject(bearer)
    if modem.props[MODEM_IFACE]['Sim'] != '/':
        self.RemoveObject(modem.props[MODEM_IFACE]['Sim'])
    self.EmitSignal(mockobject.OBJECT_MANAGER_IFACE, 'InterfacesRemoved', 'oas',
                    [dbus.ObjectPath(path), dbus.Array(list(modem.props), signature='s')])
    self.RemoveObject(path)


@dbus.service.method(CONTROL_IFACE, in_signature='sa{sv}', out_signature='')
def SetConnectResult(self, how, details):
    if how not in ('dhcp', 'static', 'refuse', 'never'):
        raise dbus.exceptions.DBusException(
            f'unknown connect result "{how}": dhcp, static, refuse or never',
            name='org.freedesktop.DBus.Error.InvalidArgs')
    self.mm_result = (str(how), dict(details))


@dbus.service.method(CONTROL_IFACE, in_signature='oi', out_signature='')
def SetModemState(self, path, state):
    if not FAILED <= state <= CONNECTED:
        raise dbus.exceptions.DBusException(f'no modem state {state}',
                                            name='org.freedesktop.DBus.Error.InvalidArgs')
    modem = _modem(path)
    if state < CONNECTING:
        _cancel_pending(modem)
    _set_state(modem, state)
