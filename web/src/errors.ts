// A failure in words: ours first, and the program's own reason with its code as a detail for those who ask.
import { ApiError, type FailureKind } from './api'
import { t, type TextKey } from './texts'

const BY_CODE: Record<number, TextKey> = {
  2: 'do.form',
  3: 'do.form',
  5: 'do.form',
  9: 'do.value',
  10: 'do.full',
  11: 'do.host',
  12: 'do.value',
  13: 'do.name',
  14: 'do.account',
  15: 'do.account',
  16: 'do.value',
  17: 'do.login',
  18: 'do.port',
  19: 'do.value',
  23: 'do.ovpn',
  24: 'do.ovpnFiles',
  25: 'do.ovpnFiles',
  26: 'do.ovpnFiles',
  27: 'do.ovpnFiles',
  28: 'do.ovpnFiles',
  29: 'do.ovpnFiles',
  30: 'do.gone',
  31: 'do.disk',
  32: 'do.logs',
  33: 'do.hangs',
  34: 'do.disk',
  36: 'do.form',
  38: 'do.password',
  39: 'do.admin',
  41: 'do.admin',
  42: 'do.logs',
  43: 'do.full',
  44: 'do.pool',
  45: 'do.access',
  46: 'do.service',
  47: 'do.service',
  48: 'do.service',
  49: 'do.service',
  50: 'do.virtualIp',
  51: 'do.cloud',
  52: 'do.drovikTwice',
  53: 'do.key',
  54: 'do.peerIp',
  55: 'do.peerKey',
  56: 'do.key',
  57: 'do.wireguardTwice',
  59: 'do.peer',
  60: 'do.command',
  61: 'do.companions',
  62: 'do.cloud',
  63: 'do.cloudLogin',
  64: 'do.cloudLogin',
  65: 'do.cloud',
  66: 'do.cloud',
  67: 'do.cloud',
  68: 'do.cloud',
  69: 'do.cloud',
  70: 'do.cloud',
  71: 'do.cloud',
  72: 'do.cloud',
  73: 'do.cloud',
  74: 'do.cloud',
  75: 'do.cloud',
  76: 'do.cloud',
  77: 'do.cloud',
  78: 'do.cloudLogin',
  79: 'do.entrance',
  80: 'do.disk',
  81: 'do.rules',
  82: 'do.cloud',
  83: 'do.network',
  84: 'do.network',
  85: 'do.network',
  86: 'do.cloud',
  88: 'do.cloud',
}

const BY_KIND: Record<Exclude<FailureKind, 'code'>, readonly [TextKey, TextKey]> = {
  network: ['fail.network', 'do.reach'],
  timeout: ['fail.timeout', 'do.wait'],
  http: ['fail.http', 'do.logs'],
  format: ['fail.format', 'do.logs'],
}

export interface Explained {
  what: string
  advice: string
  detail: string
}

export function explain(failure: unknown): Explained {
  if (!(failure instanceof ApiError))
    return { what: String(failure), advice: t('do.logs'), detail: '' }
  if (failure.kind === 'code') {
    const reason = failure.reason || t('fail.unknown')
    return {
      what: t(BY_CODE[failure.code] ?? 'do.logs'),
      advice: '',
      detail: t('fail.code', { reason, code: failure.code }),
    }
  }
  const [what, advice] = BY_KIND[failure.kind]
  return { what: t(what, { code: failure.code }), advice: t(advice), detail: '' }
}

// The same for the code that a tunnel left behind; nothing for one that ended well.
export const adviceFor = (code: number): string =>
  code === 0 ? '' : t(BY_CODE[code] ?? 'do.tunnel')
