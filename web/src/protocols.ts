// Made from base/tunnel.h by the build (protocols.ts below build/*/base): never edited by hand.

export interface Protocol {
  id: string
  label: string
  server: number
  client: number
  right: boolean // users are granted and denied its server
  colour: string // of its curve, a property of the style sheet
}

export const PROTOCOL = {
  ovpn: { id: 'ovpn', label: 'OpenVPN', server: 4, client: 1024, right: true, colour: '--curve-1' },
  wg: { id: 'wg', label: 'WireGuard', server: 32, client: 65536, right: false, colour: '--curve-2' },
  l2tp: { id: 'l2tp', label: 'L2TP/IPsec', server: 2, client: 512, right: true, colour: '--curve-3' },
  pptp: { id: 'pptp', label: 'PPTP', server: 1, client: 256, right: true, colour: '--curve-4' },
  drovik: { id: 'drovik', label: 'Drovik', server: 16, client: 4096, right: true, colour: '--curve-5' },
} as const

// In the order in which they are shown.
export const PROTOCOLS: readonly Protocol[] = Object.values(PROTOCOL)
