// Who is logged in and how the page looks to this user: theme, language, the version that runs, the end of the session.
import { useEffect, useRef, useState } from 'preact/hooks'
import { callOnce, data } from './api'
import { moment } from './format'
import { go } from './router'
import { session } from './session'
import { t } from './texts'
import { THEMES, setTheme, theme } from './theme'
import { Button, Facts, Icon, LanguageChoice, Tabs } from './ui'

const LONGEST = 12 * 3600 // seconds that a session lasts at most

interface Environment {
  version: string
  build_date: string
  model: string
}

async function logOut(): Promise<void> {
  const sid = session.sid.peek()
  session.end()
  go('')
  await callOnce('/fenro/logout', { sid }).catch(() => undefined) // it runs out by itself otherwise
}

export const sessionEnd = (since: number): string => moment(since / 1000 + LONGEST)

// Closes with Escape and with a click beside it, and gives the focus back.
function useAway(open: boolean, close: () => void) {
  const box = useRef<HTMLSpanElement>(null)
  useEffect(() => {
    if (!open) return
    const press = (event: PointerEvent) => box.current?.contains(event.target as Node) || close()
    const key = (event: KeyboardEvent) => {
      if (event.key !== 'Escape') return
      close()
      box.current?.querySelector('button')?.focus()
    }
    document.addEventListener('pointerdown', press)
    document.addEventListener('keydown', key)
    return () => {
      document.removeEventListener('pointerdown', press)
      document.removeEventListener('keydown', key)
    }
  }, [open])
  return box
}

export function Account() {
  const [open, setOpen] = useState(false)
  const [about, setAbout] = useState<Environment | null>(null)
  const box = useAway(open, () => setOpen(false))
  const login = session.login.value
  useEffect(() => {
    if (open && login?.admin && !about)
      void data<Environment>('misc/env').then(setAbout, () => undefined)
  }, [open])
  return (
    <span class="account" ref={box}>
      <button
        type="button"
        class="button quiet"
        aria-expanded={open}
        aria-controls="account"
        onClick={() => setOpen(!open)}
      >
        <Icon name="user" />
        <span class="user">{login?.user}</span>
      </button>
      {open && (
        <div id="account" class="card popup" role="group" aria-label={t('account')}>
          <div class="field">
            <span class="label">{t('account.theme')}</span>
            <Tabs
              label={t('account.theme')}
              names={THEMES.map(one => [one, t(`account.${one}`)] as const)}
              current={theme.value}
              onPick={setTheme}
            />
          </div>
          <LanguageChoice />
          <Facts
            rows={[
              [t('logs.user'), <bdi>{login?.user}</bdi>],
              ...(login?.since ? ([[t('account.until'), sessionEnd(login.since)]] as const) : []),
              ...(about
                ? ([
                    [t('account.version'), `${about.version} (${about.build_date})`],
                    [t('account.model'), about.model],
                  ] as const)
                : []),
            ]}
          />
          <p class="help">{t('account.idle')}</p>
          <Button icon="logout" onClick={() => void logOut()}>
            {t('logout')}
          </Button>
        </div>
      )}
    </span>
  )
}
