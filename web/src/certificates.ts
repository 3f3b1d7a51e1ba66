// The certificates as the program lists them, and which of them need a warning.
export interface Certificate {
  role: string
  subject: string // written by strangers
  state: 'good' | 'soon' | 'over' | 'early' | 'unreadable'
  not_before: number // seconds since 1970, as the others
  not_after: number
  days?: number // missing where nothing ends
  profile: string // URL-encoded
  index: number
  fault: string
}
export interface Holder {
  user: string
  last_login: number // 0 where none is known, as the next
  last_download: number
}
export interface Rotation {
  phase: 'none' | 'overlap' | 'changing' | 'changed'
  begun: number
  change: number
  end: number
  holders: Holder[]
}
export interface Certificates {
  certificates: Certificate[]
  renewal: number // when the server's is renewed, 0 without one
  rotation: Rotation
}

// Those that end within 30 days, or have ended, the earliest first. The old authority of a rotation needs no warning.
export const ending = (all: readonly Certificate[]): Certificate[] =>
  all
    .filter(one => one.state === 'soon' || one.state === 'over')
    .filter(one => one.role !== 'authority-old')
    .sort((one, other) => one.not_after - other.not_after)
