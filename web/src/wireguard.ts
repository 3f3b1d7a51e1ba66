// WireGuard's configuration files: written for the devices of our server, read for tunnels to other servers.

export interface DeviceSettings {
  address: string
  privateKey: string // "" for a device that fills in its own
  psk: string
  keepalive: number
  serverKey: string
  endpoint: string
  allowed: string
  dns: string
}

export function deviceConfig(device: DeviceSettings): string {
  const lines = [
    '[Interface]',
    `PrivateKey = ${device.privateKey || '…'}`,
    `Address = ${device.address}/32`,
    device.dns && `DNS = ${device.dns}`,
    '',
    '[Peer]',
    `PublicKey = ${device.serverKey}`,
    device.psk && `PresharedKey = ${device.psk}`,
    `AllowedIPs = ${device.allowed}`,
    `Endpoint = ${device.endpoint}`,
    device.keepalive > 0 && `PersistentKeepalive = ${device.keepalive}`,
  ]
  // The one empty line parts the sections; other empty ones are settings that are not there.
  return lines.filter((line, at) => line || at === 4).join('\n') + '\n'
}

// A name of up to 15 characters, as the tool that reads the file takes its interface's name from it.
export const fileName = (name: string): string =>
  `${
    name
      .replace(/[^A-Za-z0-9_-]+/g, '-')
      .replace(/^-+|-+$/g, '')
      .slice(0, 15) || 'wireguard'
  }.conf`

// From the setting in such a file, in small letters behind its section, to the variable of a client profile.
const VARIABLES: Record<string, string> = {
  'interface.privatekey': 'client_pri_key',
  'interface.address': 'client_ip',
  'interface.listenport': 'port',
  'interface.dns': 'manual_dns',
  'peer.publickey': 'peer_pub_key',
  'peer.presharedkey': 'psk',
  'peer.endpoint': 'peer_endpoint',
  'peer.allowedips': 'peer_allow_ip',
  'peer.persistentkeepalive': 'keepalive',
}

// The variables of a client profile that a file names; null for a text that is no such file.
export function readConfig(text: string): Record<string, string> | null {
  const found: Record<string, string> = {}
  let section = ''
  for (const raw of text.split('\n')) {
    const line = raw.replace(/#.*/, '').trim()
    const head = /^\[(\w+)\]$/.exec(line)
    if (head) {
      section = (head[1] ?? '').toLowerCase()
      continue
    }
    const at = line.indexOf('=')
    const variable = VARIABLES[`${section}.${line.slice(0, at).trim().toLowerCase()}`]
    if (at <= 0 || !variable || found[variable] !== undefined) continue
    found[variable] = line.slice(at + 1).trim()
  }
  if (!found['client_pri_key'] || !found['peer_pub_key']) return null
  // One IPv4 address is what a profile holds.
  const first = (list: string) =>
    list
      .split(',')
      .map(one => one.trim().replace(/\/\d+$/, ''))
      .find(one => one.includes('.')) ?? ''
  if (found['client_ip']) found['client_ip'] = first(found['client_ip'])
  if (found['manual_dns']) found['manual_dns'] = first(found['manual_dns'])
  return found
}
