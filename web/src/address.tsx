// The address at which others reach this appliance: kept on it, and used by every configuration that is handed out.
import { signal } from '@preact/signals'
import { useEffect } from 'preact/hooks'
import { call, data } from './api'
import type { Nic } from './model'
import { parseAddress, publicHost } from './rules'
import { t } from './texts'
import { Failure, Field, Notice } from './ui'

const OWN = /^(localhost|127\..*|::1)$/ // of the machine that the browser runs on

// The host of the page's own address, an IPv6 one without its brackets.
const ownHost = (): string => location.hostname.replace(/^\[(.*)\]$/, '$1')

export const publicAddress = signal(typeof location === 'undefined' ? '' : ownHost())
let typed = false // something that the appliance does not have yet
const failure = signal<unknown>(null) // of the last attempt to store it

// Where none is stored, that of the page itself; people who came through a port of their own machine get that of the
// appliance's first interface, as nobody else reaches it by theirs.
async function proposal(): Promise<string> {
  const host = ownHost()
  if (!OWN.test(host)) return host
  const nics = await data<Nic[] | null>('misc/nic')
  return nics?.find(nic => nic.ip)?.ip ?? host
}

async function load(): Promise<void> {
  const { address } = await data<{ address: string }>('address/get')
  const known = address || (await proposal())
  if (!typed) publicAddress.value = known
}

async function store(): Promise<void> {
  const address = publicAddress.peek()
  if (!typed || publicHost(address) !== null) return
  typed = false
  try {
    await call('address/set', { address })
    failure.value = null
  } catch (thrown) {
    typed = true
    failure.value = thrown
  }
}

const PRIVATE: readonly (readonly [first: string, bits: number])[] = [
  ['10.0.0.0', 8],
  ['172.16.0.0', 12],
  ['192.168.0.0', 16],
  ['100.64.0.0', 10],
  ['169.254.0.0', 16],
  ['127.0.0.0', 8],
]
// Whether an address leads here only from the same network.
export function worksAtHomeOnly(host: string): boolean {
  const number = parseAddress(host)
  if (host.includes(':')) return /^(fe[89ab]|f[cd]|::1$)/i.test(host)
  if (number === null)
    return /(^|\.)(local|lan|home|internal|localhost)$/i.test(host) || !host.includes('.')
  return PRIVATE.some(
    ([first, bits]) =>
      Math.floor(number / 2 ** (32 - bits)) ===
      Math.floor((parseAddress(first) ?? 0) / 2 ** (32 - bits)),
  )
}

// The same profile with that address in place of the appliance's own.
export const withAddress = (profile: string, host: string): string =>
  publicHost(host) === null ? profile.replace(/^remote \S+/m, `remote ${host}`) : profile

export function PublicAddress() {
  useEffect(() => {
    void load().catch(() => undefined) // the proposal stays, and can be corrected
    return () => void store() // what was typed last, in a dialog that closes
  }, [])
  const host = publicAddress.value
  const wrong = publicHost(host)
  return (
    <>
      <Field label={t('peer.host')} help={t('peer.hostHelp')} error={wrong && t(wrong)}>
        {ids => (
          <input
            {...ids}
            autocomplete="off"
            spellcheck={false}
            value={host}
            onInput={event => {
              typed = true
              publicAddress.value = event.currentTarget.value.trim()
            }}
            onChange={() => void store()}
          />
        )}
      </Field>
      {!wrong && worksAtHomeOnly(host) && <Notice>{t('peer.atHome')}</Notice>}
      <Failure failure={failure.value} />
    </>
  )
}
