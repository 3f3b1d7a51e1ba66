// The address at which others reach this appliance: asked once, and used by every configuration that is handed out.
import { signal } from '@preact/signals'
import { useEffect } from 'preact/hooks'
import { data } from './api'
import type { Nic } from './model'
import { host as hostRule, parseAddress } from './rules'
import { t } from './texts'
import { Field, Notice } from './ui'

const PLACE = 'ormel.address'
const OWN = /^(localhost|127\..*|\[?::1\]?)$/ // of the machine that the browser runs on

const stored = typeof localStorage === 'undefined' ? '' : (localStorage.getItem(PLACE) ?? '')
export const publicAddress = signal(
  stored || (typeof location === 'undefined' ? '' : location.hostname),
)

export function setPublicAddress(to: string): void {
  const address = to.trim()
  publicAddress.value = address
  if (hostRule(address) === null) localStorage.setItem(PLACE, address)
  else localStorage.removeItem(PLACE)
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
  hostRule(host) === null ? profile.replace(/^remote \S+/m, `remote ${host}`) : profile

export function PublicAddress() {
  // Whoever came by a port of their own machine: nobody else reaches the appliance by that.
  useEffect(() => {
    if (stored || !OWN.test(location.hostname)) return
    void data<Nic[] | null>('misc/nic').then(
      nics => {
        if (OWN.test(publicAddress.peek()))
          publicAddress.value = nics?.find(nic => nic.ip)?.ip ?? location.hostname
      },
      () => undefined,
    )
  }, [])
  const host = publicAddress.value
  const wrong = hostRule(host)
  return (
    <>
      <Field label={t('peer.host')} help={t('peer.hostHelp')} error={wrong && t(wrong)}>
        {ids => (
          <input
            {...ids}
            autocomplete="off"
            spellcheck={false}
            value={host}
            onInput={event => setPublicAddress(event.currentTarget.value)}
          />
        )}
      </Field>
      {!wrong && worksAtHomeOnly(host) && <Notice>{t('peer.atHome')}</Notice>}
    </>
  )
}
