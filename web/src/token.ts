// Valid names of tokens, and how long a token remains valid.
import type { Rule } from './rules'

export const DAY = 86_400

export const tokenName: Rule = value =>
  /^[A-Za-z0-9._-]{1,40}$/.test(value) ? null : 'token.nameWrong'

// Whole days; negative for an expired token.
export const daysLeft = (expires: number, now: number): number =>
  expires > now ? Math.floor((expires - now) / DAY) : -1
