// The form of each kind of tunnel to another server.
import type { FieldRow, Values } from '../form'
import { base64, decodeName } from '../format'
import { WIREGUARD_CLIENT, type ClientProfile } from '../model'
import { address, all, atMost, endpoint, host, key, optional, range, required } from '../rules'
import { AUTHENTICATION, PORT, PPTP_STRENGTH } from './servers.rows'

const NAME: FieldRow = { name: 'name', label: 'name', rule: all(required, atMost(600)) }
const HOST: FieldRow = { name: 'host', label: 'client.host', rule: host, help: 'client.hostHelp' }
const PSK: FieldRow = {
  name: 'psk',
  label: 'psk',
  kind: 'password',
  rule: all(required, atMost(128)),
}
const AUTH: FieldRow = { name: 'auth', label: 'auth', choices: AUTHENTICATION, more: true }
const RECONNECT: FieldRow = { name: 'reconnect', label: 'client.reconnect', kind: 'switch' }
const MASK: FieldRow = {
  name: 'mask',
  label: 'client.mask',
  kind: 'number',
  rule: range(8, 32),
  limits: [8, 32],
  help: 'client.maskHelp',
  more: true,
}

const account = (isNew: boolean, needed: boolean): readonly FieldRow[] => [
  { name: 'user', label: 'client.user', rule: needed ? all(required, atMost(64)) : atMost(64) },
  {
    name: 'pass',
    label: 'client.pass',
    kind: 'password',
    rule: isNew && needed ? all(required, atMost(512)) : atMost(512),
    ...(isNew ? {} : { help: 'client.keepPass' as const }),
  },
]

export function clientRows(type: number, isNew: boolean): readonly FieldRow[] {
  const rows: Record<number, readonly FieldRow[]> = {
    256: [
      NAME,
      HOST,
      ...account(isNew, true),
      RECONNECT,
      AUTH,
      { name: 'enc', label: 'enc', choices: PPTP_STRENGTH, more: true },
      MASK,
    ],
    512: [NAME, HOST, ...account(isNew, true), PSK, RECONNECT, AUTH, MASK],
    1024: [NAME, ...account(isNew, false), RECONNECT, MASK],
    4096: [NAME, HOST, PORT, ...account(isNew, true), PSK, RECONNECT, MASK],
    65536: [
      { ...NAME, name: 'client_name' },
      {
        name: 'peer_endpoint',
        label: 'client.endpoint',
        rule: endpoint,
        help: 'client.endpointHelp',
      },
      { name: 'peer_pub_key', label: 'client.serverKey', kind: 'key', rule: key },
      { name: 'client_pri_key', label: 'client.privateKey', kind: 'secret', rule: key },
      { name: 'client_ip', label: 'client.address', rule: address },
      { name: 'psk', label: 'peer.psk', kind: 'secret', rule: optional(key) },
      {
        name: 'peer_allow_ip',
        label: 'client.allowed',
        rule: required,
        help: 'client.allowedHelp',
        more: true,
      },
      {
        name: 'keepalive',
        label: 'peer.keepalive',
        kind: 'number',
        rule: range(0, 65535),
        limits: [0, 65535],
        more: true,
      },
      { name: 'enable_dns', label: 'client.dnsSwitch', kind: 'switch', more: true },
      {
        name: 'manual_dns',
        label: 'server.dns',
        rule: address,
        when: values => values['enable_dns'] === true,
        more: true,
      },
      {
        name: 'port',
        label: 'client.listen',
        kind: 'number',
        rule: range(0, 65535),
        limits: [0, 65535],
        help: 'client.listenHelp',
        more: true,
      },
    ],
  }
  return rows[type] ?? []
}

const NEW: Record<number, Values> = {
  4096: { port: '443' },
  65536: {
    peer_allow_ip: '0.0.0.0/0',
    keepalive: '25',
    enable_dns: false,
    manual_dns: '0.0.0.0',
    port: '0',
  },
}
export const newValues = (type: number): Values => ({
  reconnect: true,
  auth: '2',
  enc: '2',
  mask: '24',
  user: '',
  pass: '',
  name: '',
  host: '',
  psk: '',
  client_name: '',
  peer_endpoint: '',
  peer_pub_key: '',
  client_pri_key: '',
  client_ip: '',
  ...NEW[type],
})

export function storedValues(profile: ClientProfile): Values {
  const values = newValues(profile.type)
  for (const [name, value] of Object.entries(profile))
    if (name in values) values[name] = typeof value === 'boolean' ? value : String(value ?? '')
  values['name'] = profile.profile
  values['host'] = profile.server_ip
  values['pass'] = '' // the answer holds no password
  if (profile.type === WIREGUARD_CLIENT)
    values['client_name'] = decodeName(String(profile['client_name']))
  return values
}

// What a filled-in form becomes on the wire: passwords in base64, an empty one meaning that it stays.
export function wire(type: number, values: Record<string, string>): Record<string, string> {
  const { pass, ...rest } = values
  const out: Record<string, string> = { ...rest }
  if (pass) out['pass'] = base64(pass)
  if (out['user'] === '') delete out['user']
  if (type === WIREGUARD_CLIENT) {
    out['client_name'] = encodeURIComponent(values['client_name'] ?? '')
    out['client_mask'] = '32'
  }
  return out
}
