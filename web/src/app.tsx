// The frame around all pages: who is logged in, the navigation, and messages.
import type { FunctionComponent } from 'preact'
import { useEffect, useRef, useState } from 'preact/hooks'
import { Account } from './account'
import { undoLost, unsaved } from './api'
import { PendingBand } from './goback'
import { idle, watchHands } from './idle'
import { lazy } from './lazy'
import { ClientsPage } from './pages/clients'
import { ConnectionsPage } from './pages/connections'
import { GatewayPage } from './pages/gateway'
import { LoginAgain, LoginPage } from './pages/login'
import { LogsPage } from './pages/logs'
import { Bell, NotifyPage } from './pages/notify'
import { OverviewPage } from './pages/overview'
import { RightsPage } from './pages/rights'
import { ServersPage } from './pages/servers'
import { UserQuestions } from './pages/user'
import { watchDrops } from './drop'
import { watchFocus } from './focus'
import { guard, place } from './router'
import { session } from './session'
import { language, t, type TextKey } from './texts'
import { Icon, Notice, Questions, Sayings, hush, mayLeave, touched, type IconName } from './ui'

interface Page {
  name: string
  label: TextKey
  icon: IconName
  everybody?: boolean // administrators alone without it
  show: FunctionComponent
}
const PAGES: readonly Page[] = [
  { name: 'overview', label: 'nav.overview', icon: 'overview', show: OverviewPage },
  { name: 'servers', label: 'nav.servers', icon: 'server', show: ServersPage },
  { name: 'clients', label: 'nav.clients', icon: 'client', everybody: true, show: ClientsPage },
  { name: 'connections', label: 'nav.connections', icon: 'connections', show: ConnectionsPage },
  { name: 'rights', label: 'nav.rights', icon: 'rights', show: RightsPage },
  { name: 'gateway', label: 'nav.gateway', icon: 'gateway', everybody: true, show: GatewayPage },
  {
    name: 'sdwan',
    label: 'nav.sdwan',
    icon: 'cloud',
    show: lazy(() => import('./pages/sdwan').then(loaded => loaded.SdwanPage)),
  },
  { name: 'logs', label: 'nav.logs', icon: 'logs', show: LogsPage },
  { name: 'notify', label: 'nav.notify', icon: 'bell', show: NotifyPage },
  {
    name: 'backup',
    label: 'nav.backup',
    icon: 'download',
    show: lazy(() => import('./pages/backup').then(loaded => loaded.BackupPage)),
  },
  {
    name: 'tokens',
    label: 'nav.tokens',
    icon: 'key',
    show: lazy(() => import('./pages/tokens').then(loaded => loaded.TokensPage)),
  },
]
// Where general users begin.
const MY: Page = {
  name: 'my',
  label: 'nav.my',
  icon: 'user',
  everybody: true,
  show: lazy(() => import('./pages/my').then(loaded => loaded.MyPage)),
}

const EnrolPage = lazy(() => import('./pages/secondfactor').then(loaded => loaded.EnrolPage))

function Shell() {
  const admin = session.login.value?.admin ?? false
  const pages = admin ? [...PAGES, MY] : [MY, ...PAGES].filter(page => page.everybody)
  const current = pages.find(page => page.name === place.value[0]) ?? pages[0]
  const [open, setOpen] = useState(false)
  const heading = useRef<HTMLHeadingElement>(null)
  const first = useRef(true)

  useEffect(() => {
    setOpen(false)
    if (current) document.title = `${t(current.label)} – ${location.host}`
    hush()
    if (!first.current || document.activeElement === document.body) heading.current?.focus()
    first.current = false
  }, [current?.name, language.value])

  if (!current) return null
  const Show = current.show
  return (
    <div class="shell">
      <a
        class="skip"
        href="#main"
        onClick={event => (event.preventDefault(), heading.current?.focus())}
      >
        {t('skip')}
      </a>
      <header class="top">
        <span class="menu">
          <button
            type="button"
            class="button quiet"
            aria-expanded={open}
            aria-controls="nav"
            aria-label={t('nav.menu')}
            onClick={() => setOpen(!open)}
          >
            <Icon name="menu" />
          </button>
        </span>
        <span class="brand">
          <img src="/assets/icon.svg" alt="" width="26" height="26" /> ormel{' '}
          <span class="host">{location.host}</span>
        </span>
        <span class="who">
          {admin && <Bell />}
          <Account />
        </span>
      </header>
      <nav id="nav" class={open ? 'open' : ''} aria-label={t('nav.label')}>
        <ul>
          {pages.map(page => (
            <li key={page.name}>
              <a
                href={`#/${page.name}`}
                aria-current={page === current ? 'page' : undefined}
                onClick={() => setOpen(false)}
              >
                <Icon name={page.icon} />
                {t(page.label)}
              </a>
            </li>
          ))}
        </ul>
      </nav>
      <main id="main">
        <h1 ref={heading} tabIndex={-1}>
          {t(current.label)}
        </h1>
        {unsaved.value && (
          <Notice tone="bad">
            <strong>{t('unsaved')}</strong> <span>{t('unsaved.advice')}</span>
          </Notice>
        )}
        {undoLost.value && (
          <Notice>
            <strong>{t('undo.none')}</strong> <span>{t('undo.noneAdvice')}</span>
          </Notice>
        )}
        {admin && <PendingBand />}
        {idle.value && (
          <Notice>
            <strong>{t('idle.title')}</strong> <span>{t('idle.text')}</span>
          </Notice>
        )}
        <Show />
        {admin && <UserQuestions />}
      </main>
    </div>
  )
}

export function App() {
  useEffect(watchDrops, [])
  useEffect(watchFocus, [])
  useEffect(watchHands, [])
  useEffect(() => guard(mayLeave), [])
  useEffect(() => {
    const ask = (event: BeforeUnloadEvent) => {
      if (touched.size > 0) event.preventDefault()
    }
    window.addEventListener('beforeunload', ask)
    return () => window.removeEventListener('beforeunload', ask)
  }, [])
  useEffect(() => {
    document.documentElement.lang = language.value
  }, [language.value])
  return (
    <>
      {!session.login.value ? (
        <LoginPage />
      ) : session.login.value.enrol ? (
        <EnrolPage />
      ) : (
        <Shell key={session.login.value.user} />
      )}
      <Questions />
      {session.expired.value && <LoginAgain />}
      <Sayings />
    </>
  )
}
